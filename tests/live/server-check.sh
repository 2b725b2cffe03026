#!/usr/bin/env bash
# Runs inside tools/meeting-server: checks the namespace has no way out, then drives the server's
# HTTP API with curl: a session, the VideoRoom plugin, a room with a string id created on demand,
# the room list, a publisher joining with a string id and a second one being announced to it.
set -euo pipefail
fail() {
  echo "server check: FAILED $*"
  exit 1
}

links=$(ip -o link show | awk -F': ' '{sub(/@.*/, "", $2); print $2}' | sort | tr '\n' ' ')
[ "$links" = "lo v0 v1 " ] || fail "links are '$links'"
[ -z "$(ip route show default)" ] || fail "there is a default route"
# A documentation address stands for the outside world: the kernel must find no route to it.
! ip route get 192.0.2.1 >/dev/null 2>&1 || fail "the namespace has a route to 192.0.2.1"

base="http://$CONVOKE_JANUS_HOST:$CONVOKE_JANUS_PORT$CONVOKE_JANUS_PATH"
post() {  # post URL JSON: prints the answer
  curl -s -m 5 -H 'Content-Type: application/json' \
    -d "$(sed "1s/^{/{\"transaction\":\"t$RANDOM\",/" <<<"$2")" "$1"
}
number() {  # the first "key": number in the JSON on stdin
  grep -o "\"$1\": *[0-9]*" | head -n 1 | grep -o '[0-9]*$'
}
events() {  # long-polls the session's events for at most 3 s
  curl -s -m 5 "$base/$1?maxev=10&rid=$RANDOM"
}

answer=$(post "$base" '{"janus":"create"}')
session=$(number id <<<"$answer") || fail "no session: $answer"
attach() {
  local answer
  answer=$(post "$base/$session" '{"janus":"attach","plugin":"janus.plugin.videoroom"}')
  number id <<<"$answer" || fail "attach: $answer"
}
ann=$(attach)
bob=$(attach)
room="check-$$"

answer=$(post "$base/$session/$ann" '{"janus":"message","body":{"request":"create","room":"'"$room"'",
  "publishers":16,"bitrate":512000,"fir_freq":10,"audiolevel_event":true,"audio_active_packets":50,
  "audio_level_average":40,"notify_joining":true}}')
grep -q '"videoroom": *"created"' <<<"$answer" || fail "create room: $answer"

answer=$(post "$base/$session/$ann" '{"janus":"message","body":{"request":"list"}}')
grep -q "\"room\": *\"$room\"" <<<"$answer" || fail "the list lacks $room: $answer"
grep -q '"room": *"convoke"' <<<"$answer" || fail "the list lacks the configured room: $answer"

join() {  # join HANDLE ID DISPLAY
  local answer
  answer=$(post "$base/$session/$1" '{"janus":"message","body":{"request":"join","ptype":"publisher",
    "room":"'"$room"'","id":"'"$2"'","display":"'"$3"'"}}')
  grep -q '"janus": *"ack"' <<<"$answer" || fail "join $3: $answer"
}
join "$ann" 7f0c1a52-ann "Ann"
answer=$(events "$session")
grep -q '"videoroom": *"joined"' <<<"$answer" || fail "Ann was not told she joined: $answer"
grep -q '"id": *"7f0c1a52-ann"' <<<"$answer" || fail "Ann's string id is missing: $answer"
join "$bob" 3e9d44b1-bob "Bob"
answer=$(events "$session")
grep -q '"joining"' <<<"$answer" || fail "Ann was not told Bob is joining: $answer"
grep -q '"display": *"Bob"' <<<"$answer" || fail "Bob's display name is missing: $answer"

answer=$(post "$base/$session" '{"janus":"destroy"}')
grep -q '"janus": *"success"' <<<"$answer" || fail "destroy: $answer"
echo "server check: ok, room $room, publishers 7f0c1a52-ann and 3e9d44b1-bob"
