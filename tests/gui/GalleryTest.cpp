// convoke-gallery in a simulated meeting of five, under Xvfb: its screenshots are read back and
// checked pixel by pixel against what the gallery says it drew and what the simulation draws into
// its own pictures (a green frame around a speaker's camera picture, a light menu bar on a shared
// screen).
#include <gtest/gtest.h>
#include <png.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace {

struct Rect {
  int x = 0, y = 0, w = 0, h = 0;
};

struct Tile {
  Rect picture;
  std::string kind, name;
  int self = 0, muted = 0, amplitude = 0;
};

// One screenshot: the report the gallery printed and the pixels of the PNG.
struct Shot {
  std::string path;
  int width = 0, height = 0;
  std::vector<Tile> tiles;
  bool screen = false;
  Rect screenRect;
  std::vector<unsigned char> rgb;

  const unsigned char* at(int x, int y) const {
    return &rgb[(static_cast<size_t>(y) * width + x) * 3];
  }
  // Share of the rectangle's pixels (every third row and column) darker than 16 in every channel.
  double blackShare(const Rect& r) const {
    int dark = 0, all = 0;
    for (int y = r.y; y < r.y + r.h; y += 3) {
      for (int x = r.x; x < r.x + r.w; x += 3, ++all) {
        const unsigned char* p = at(x, y);
        dark += p[0] < 16 && p[1] < 16 && p[2] < 16;
      }
    }
    return all == 0 ? 1.0 : static_cast<double>(dark) / all;
  }
};

bool ReadPng(Shot* shot) {
  png_image image;
  std::memset(&image, 0, sizeof image);
  image.version = PNG_IMAGE_VERSION;
  if (!png_image_begin_read_from_file(&image, shot->path.c_str())) return false;
  image.format = PNG_FORMAT_RGB;
  shot->rgb.resize(PNG_IMAGE_SIZE(image));
  const bool ok = png_image_finish_read(&image, nullptr, shot->rgb.data(), 0, nullptr) != 0;
  return ok && static_cast<int>(image.width) == shot->width &&
         static_cast<int>(image.height) == shot->height;
}

// Parses the lines the gallery prints after each screenshot.
std::vector<Shot> ParseReport(const std::string& output) {
  std::vector<Shot> shots;
  std::istringstream in(output);
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream words(line);
    std::string first, skip;
    words >> first;
    if (first == "screenshot") {
      Shot shot;
      char x;
      std::string size, screen;
      words >> shot.path >> size;
      shot.path.pop_back();  // the colon
      std::istringstream(size) >> shot.width >> x >> shot.height;
      shot.screen = line.find("screen shared") != std::string::npos;
      shots.push_back(shot);
    } else if (first == "tile" && !shots.empty()) {
      Tile t;
      words >> skip >> skip >> t.picture.x >> t.picture.y >> t.picture.w >> t.picture.h >> t.kind >>
          skip >> t.self >> skip >> t.muted >> skip >> t.amplitude >> skip;
      std::getline(words, t.name);
      shots.back().tiles.push_back(t);
    } else if (first == "screen" && !shots.empty()) {
      Rect& r = shots.back().screenRect;
      words >> skip >> r.x >> r.y >> r.w >> r.h;
    }
  }
  return shots;
}

// The gallery's amplitude border, read a little outside the picture's left edge.
const unsigned char* BorderPixel(const Shot& s, const Tile& t) {
  return s.at(t.picture.x - 2, t.picture.y + t.picture.h / 3);
}
bool Lit(const unsigned char* p) { return p[0] >= 100 && p[0] > p[2] + 60; }
bool Dark(const unsigned char* p) { return p[0] < 80 && p[1] < 80; }
// The simulation's own speaking frame: green at the picture's edge.
bool SimulationGreen(const Shot& s, const Tile& t) {
  const unsigned char* p = s.at(t.picture.x, t.picture.y + t.picture.h / 2);
  return p[1] > 150 && p[0] < 110 && p[2] < 120;
}

class GalleryScreenshots : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (std::system("command -v xvfb-run >/dev/null 2>&1") != 0) {
      skip_ = "xvfb-run is missing (bash tools/install-deps.sh --gui)";
      return;
    }
    const std::string dir = CONVOKE_GUI_WORK_DIR;
    std::system(("mkdir -p " + dir + " && rm -f " + dir + "/*.png").c_str());
    // M at 2 s; one screenshot before it, the main one after it, then one every half second
    // until one shows a speaker (the simulation's talk has pauses and gaps between words).
    std::ofstream script(dir + "/script.txt");
    script << "1.0 screenshot " << dir << "/before-m.png\n2.0 m\n";
    for (int i = 0; i < 16; ++i)
      script << 5.0 + 0.5 * i << " screenshot " << dir << "/later-" << i << ".png\n";
    script.close();
    const std::string command =
        "timeout -k 5 90 xvfb-run -a -s '-screen 0 1280x800x24' " CONVOKE_GALLERY_PATH
        " --participants 5 --meeting 'gallery-test?churn=0&seed=7' --duration 14"
        " --screenshot " +
        dir + "/gallery.png --at 4 --script " + dir + "/script.txt 2>&1";
    FILE* pipe = popen(command.c_str(), "r");
    char buffer[1024];
    while (pipe != nullptr && std::fgets(buffer, sizeof buffer, pipe) != nullptr) output_ += buffer;
    status_ = pipe != nullptr ? pclose(pipe) : -1;
    std::printf("%s", output_.c_str());
    for (Shot& shot : ParseReport(output_)) {
      if (ReadPng(&shot)) shots_[shot.path.substr(shot.path.rfind('/') + 1)] = shot;
    }
  }
  void SetUp() override {
    if (!skip_.empty()) GTEST_SKIP() << skip_;
    ASSERT_EQ(status_, 0) << output_;
    ASSERT_EQ(shots_.count("gallery.png"), 1u) << output_;
  }
  static const Shot& Main() { return shots_.at("gallery.png"); }

  static std::string skip_, output_;
  static int status_;
  static std::map<std::string, Shot> shots_;
};
std::string GalleryScreenshots::skip_, GalleryScreenshots::output_;
int GalleryScreenshots::status_ = -1;
std::map<std::string, Shot> GalleryScreenshots::shots_;

TEST_F(GalleryScreenshots, OneTileEachForFiveParticipantsAndTheSelfViewNoneBlack) {
  const Shot& s = Main();
  ASSERT_EQ(s.tiles.size(), 6u);
  int self = 0, video = 0;
  for (const Tile& t : s.tiles) {
    self += t.self;
    video += t.kind == "video";
    EXPECT_LT(s.blackShare(t.picture), 0.05) << t.name;
    EXPECT_GT(t.picture.w, 100) << t.name;
    // The picture keeps its 16:9 aspect ratio (within the rounding of the layout).
    if (t.kind == "video") {
      EXPECT_NEAR(t.picture.w * 9.0 / t.picture.h, 16.0, 0.5) << t.name;
    }
  }
  EXPECT_EQ(self, 1);
  EXPECT_GE(video, 4);  // the one dialled in by phone has a name tile
  std::printf("tiles: %zu (%d with video, %d self)\n", s.tiles.size(), video, self);
}

TEST_F(GalleryScreenshots, TheBorderLightsUpOnTheParticipantTheSimulationMakesSpeak) {
  bool seen = false;
  for (const auto& entry : shots_) {
    const Shot& s = entry.second;
    for (const Tile& t : s.tiles) {
      const unsigned char* border = BorderPixel(s, t);
      if (t.amplitude > 30) {
        EXPECT_TRUE(Lit(border)) << entry.first << " " << t.name;
      } else if (t.amplitude <= 10) {
        EXPECT_TRUE(Dark(border)) << entry.first << " " << t.name;
      }
      // A camera picture must show the simulation's own speaking frame as well; a participant
      // dialled in by phone has only the amplitude the simulation reports.
      if (t.amplitude > 30 && Lit(border) && !t.self &&
          (t.kind == "name" || SimulationGreen(s, t))) {
        if (!seen) {
          std::printf("speaker: %s in %s, amplitude %d, border %d,%d,%d\n", t.name.c_str(),
                      entry.first.c_str(), t.amplitude, border[0], border[1], border[2]);
        }
        seen = true;
      }
    }
  }
  EXPECT_TRUE(seen) << "no screenshot showed a speaker with the gallery's lit border (and, on a "
                       "camera picture, the simulation's green frame)";
}

TEST_F(GalleryScreenshots, TheSelfViewShowsTheMutedMarkAfterAScriptedM) {
  ASSERT_EQ(shots_.count("before-m.png"), 1u);
  for (const char* name : {"before-m.png", "gallery.png"}) {
    const Shot& s = shots_.at(name);
    const bool after = std::strcmp(name, "gallery.png") == 0;
    for (const Tile& t : s.tiles) {
      if (!t.self) continue;
      EXPECT_EQ(t.muted, after ? 1 : 0) << name;
      // The mark: a red square in the picture's top-right corner.
      const unsigned char* p = s.at(t.picture.x + t.picture.w - 26, t.picture.y + 24);
      const bool red = p[0] > 190 && p[1] < 80 && p[2] < 80;
      EXPECT_EQ(red, after) << name << ": " << int(p[0]) << "," << int(p[1]) << "," << int(p[2]);
    }
  }
}

TEST_F(GalleryScreenshots, TheSharedScreenIsShownLargeBesideTheGallery) {
  const Shot& s = Main();
  ASSERT_TRUE(s.screen);
  const Rect& r = s.screenRect;
  EXPECT_LT(s.blackShare(r), 0.05);
  for (const Tile& t : s.tiles) {
    EXPECT_GT(r.w * r.h, 4 * t.picture.w * t.picture.h);
    EXPECT_LE(r.x + r.w, t.picture.x);  // beside the tiles, on their left
  }
  // The simulated screen's light menu bar along its top.
  const unsigned char* bar = s.at(r.x + r.w / 2, r.y + 2);
  EXPECT_GT(bar[0], 200);
  EXPECT_GT(bar[1], 200);
  EXPECT_GT(bar[2], 200);
  std::printf("screen: %dx%d at %d,%d\n", r.w, r.h, r.x, r.y);
}

}  // namespace
