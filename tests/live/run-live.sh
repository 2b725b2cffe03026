#!/usr/bin/env bash
# Runs the live tests for ctest. Exits 77 (skipped) with the reason when the machine cannot hold a
# live meeting; otherwise passes only when the last line of the run reports success.
#
#   run-live.sh server            tools/meeting-server around server-check.sh (the rig alone)
#   run-live.sh meeting ENGINES   tools/live-meeting; ENGINES is "open" when the build holds the
#                                 open engines
#   run-live.sh features ENGINES  tools/live-features (three hosts), likewise
#   run-live.sh meeting4 ENGINES  tools/live-meeting --hosts 4
#   run-live.sh faults ENGINES    tools/live-faults: loss, a narrow link, a server kill and restart
#   run-live.sh churn ENGINES     tools/live-churn: a peer joining and leaving 200 times a minute
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
mode=${1:-}
engines=${2:-}

skip() {
  echo "SKIPPED: live $mode: $*"
  exit 77
}

case "$mode" in
  server) command=("$root/tools/meeting-server" --lifetime 60 -- "$here/server-check.sh")
          verdict="server check: ok" ;;
  meeting) command=("$root/tools/live-meeting")
           verdict="live meeting: ok" ;;
  features) command=("$root/tools/live-features")
            verdict="live features: ok" ;;
  meeting4) command=("$root/tools/live-meeting" --hosts 4)
            verdict="live meeting: ok" ;;
  faults) command=("$root/tools/live-faults")
          verdict="live faults: ok" ;;
  churn) command=("$root/tools/live-churn")
         verdict="live churn: ok" ;;
  *) echo "usage: run-live.sh server | meeting | meeting4 | features | faults | churn ENGINES" >&2
     exit 2 ;;
esac

if [ "$mode" != server ] && [ "$engines" != open ]; then
  skip "the open engines were not built (configure with -DCONVOKE_ENGINES=open after bash tools/install-deps.sh --live)"
fi
[ "$(id -u)" -eq 0 ] || skip "needs root for a private network namespace"
for tool in unshare ip janus timeout curl; do
  command -v "$tool" >/dev/null || skip "'$tool' is missing (bash tools/install-deps.sh --live)"
done
timeout 10 unshare --net --pid --fork --mount-proc -- ip link add v0 type veth peer name v1 \
  >/dev/null 2>&1 || skip "this machine does not allow a private network namespace with a veth pair"
[ -x "${command[0]}" ] || skip "${command[0]#"$root/"} is not there"
if [ "$mode" = faults ]; then
  command -v iptables >/dev/null || skip "'iptables' is missing (bash tools/install-deps.sh --live)"
  command -v tc >/dev/null || skip "'tc' is missing (bash tools/install-deps.sh --live)"
  [ -x "${CONVOKE_BUILD_DIR:-$root/build/release}/bin/net-delay" ] ||
    skip "bin/net-delay was not built (it needs libnetfilter-queue-dev: bash tools/install-deps.sh --live)"
fi

# Packets on the machine's own interfaces, to show what the run added there: nothing of the
# meeting should, so anything seen is other traffic of the machine (informative, not a verdict).
host_packets() { awk 'NR > 2 { sub(":", "", $1); if ($1 != "lo") print $1, $3, $11 }' /proc/net/dev; }

output=$(mktemp)
before=$(mktemp)
trap 'rm -f "$output" "$before"' EXIT
host_packets >"$before"
timeout -k 10 270 "${command[@]}" 2>&1 | tee "$output"
host_packets | awk 'NR == FNR { rx[$1] = $2; tx[$1] = $3; next }
  { line = line sprintf(" %s +%d/+%d", $1, $2 - rx[$1], $3 - tx[$1]) }
  END { print "run-live: packets received/sent on the host'"'"'s interfaces during the run:" line }' \
  "$before" -
last=$(tail -n 1 "$output")
case "$last" in
  "$verdict"*) exit 0 ;;
  *) echo "run-live: the last line is not '$verdict...': '$last'"; exit 1 ;;
esac
