// Previews opened in a real browser, headless Debian chromium: the examples'
// previews, checked from the DOM once the preview's script has run (every
// lock tied to the panel entry with its decoded code and source line, both
// ways) and from a screenshot (a highlighted word in the highlight colour);
// and a page whose server output tries to run script and load files beside
// the preview, none of which may happen.
//
// PreviewHarness.js is appended to each preview to click through it; one
// chromium run per preview dumps the DOM and takes the screenshot. Without
// chromium these tests fail: scripts/setup.sh installs it.
#include <gtest/gtest.h>
#include <png.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "Files.h"
#include "Preview.h"
#include "Server.h"

using namespace qzhost;
using nlohmann::json;

namespace {

// The highlight colour the preview gives server-produced text.
constexpr unsigned char kHighlight[] = {255, 221, 0};

// QZ_CHROMIUM when set, else chromium on PATH; empty when not executable.
std::string FindChromium() {
  const char* chosen = std::getenv("QZ_CHROMIUM");
  if (chosen && *chosen) return access(chosen, X_OK) == 0 ? chosen : "";
  std::istringstream path(std::getenv("PATH") ? std::getenv("PATH") : "");
  for (std::string folder; std::getline(path, folder, ':');) {
    std::string candidate = folder + "/chromium";
    if (access(candidate.c_str(), X_OK) == 0) return candidate;
  }
  return "";
}

struct Png {
  int width = 0, height = 0;
  std::vector<unsigned char> rgba;
  const unsigned char* At(int x, int y) const { return &rgba[(static_cast<size_t>(y) * width + x) * 4]; }
};

bool ReadPng(const std::string& path, Png* png) {
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  if (!png_image_begin_read_from_file(&image, path.c_str())) return false;
  image.format = PNG_FORMAT_RGBA;
  png->width = static_cast<int>(image.width);
  png->height = static_cast<int>(image.height);
  png->rgba.resize(PNG_IMAGE_SIZE(image));
  return png_image_finish_read(&image, nullptr, png->rgba.data(), 0, nullptr) != 0;
}

// Pixels of the rectangle, clipped to the image, that have exactly the colour.
double ShareOfColour(const Png& png, int left, int top, int width, int height, const unsigned char* rgb) {
  int hits = 0, all = 0;
  for (int y = std::max(0, top); y < std::min(png.height, top + height); ++y)
    for (int x = std::max(0, left); x < std::min(png.width, left + width); ++x, ++all)
      hits += png.At(x, y)[0] == rgb[0] && png.At(x, y)[1] == rgb[1] && png.At(x, y)[2] == rgb[2];
  return all ? static_cast<double>(hits) / all : 0;
}

std::string Quoted(std::string text) {
  for (size_t at = 0; (at = text.find('\'', at)) != std::string::npos; at += 4) text.replace(at, 1, "'\\''");
  return "'" + text + "'";
}

// Whether the source page holds code starting on line (from 1).
bool CodeStartsOnLine(const std::string& source, const std::string& code, int line) {
  size_t start = 0;
  for (int k = 1; k < line; ++k) {
    start = source.find('\n', start);
    if (start == std::string::npos) return false;
    ++start;
  }
  size_t found = source.find(code, start);
  return found != std::string::npos && found < source.find('\n', start);
}

class PreviewBrowserTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NE(mkdtemp(folder), nullptr);
    chromium = FindChromium();
    ASSERT_FALSE(chromium.empty()) << "chromium was not found (on PATH or in QZ_CHROMIUM); the browser tests "
                                      "need Debian's chromium package, which scripts/setup.sh installs";
  }
  void TearDown() override { std::filesystem::remove_all(folder); }

  std::string Path(const std::string& name) { return folder + ("/" + name); }

  std::string Read(const std::string& path) {
    std::string bytes, error;
    EXPECT_TRUE(ReadWholeFile(path, &bytes, &error)) << error;
    return bytes;
  }

  void Write(const std::string& name, const std::string& bytes) {
    std::string error;
    ASSERT_TRUE(WriteWholeFile(Path(name), bytes, &error)) << error;
  }

  // Runs qztranslate in the folder with the arguments.
  void Translate(const std::string& args) {
    ServerRun run;
    std::string error;
    ASSERT_TRUE(RunServer(std::string(QZ_TRANSLATE_PATH) + " " + args, folder, "", &run, &error)) << error;
    ASSERT_EQ(run.exitStatus, 0) << args << "\n" << run.errors;
  }

  // Opens the preview, with the harness appended, in headless chromium;
  // leaves the harness's report in report and the screenshot in shot.
  void Open(const std::string& previewName) {
    std::string preview = Read(Path(previewName));
    size_t nonceAt = preview.find("<script nonce=\"");
    size_t end = preview.rfind("</body>");
    ASSERT_TRUE(nonceAt != std::string::npos && end != std::string::npos);
    std::string nonce = preview.substr(nonceAt + 15, preview.find('"', nonceAt + 15) - nonceAt - 15);
    preview.insert(end, "<script nonce=\"" + nonce + "\">" + Read(QZ_PREVIEW_HARNESS) + "</script>\n");
    Write("shown.html", preview);

    std::string profile = Path("chromium-profile"), png = Path("shot.png");
    std::string command = "timeout 20 " + Quoted(chromium) +
                          " --headless --no-sandbox --disable-gpu --disable-quic --no-first-run"
                          " --disable-background-networking --disable-component-update --disable-sync"
                          " --hide-scrollbars --force-device-scale-factor=1 --window-size=1100,700"
                          " --virtual-time-budget=5000 --user-data-dir=" +
                          Quoted(profile) + " --screenshot=" + Quoted(png) + " --dump-dom " +
                          Quoted("file://" + Path("shown.html"));
    ServerRun run;
    std::string error;
    ASSERT_TRUE(RunServer(command, folder, "", &run, &error)) << error;
    ASSERT_EQ(run.exitStatus, 0) << "chromium failed:\n" << ErrorTail(run.errors);
    ASSERT_TRUE(ReadPng(png, &shot)) << "no screenshot";
    size_t start = run.output.find("<pre id=\"qz-harness\" hidden=\"\">");
    ASSERT_NE(start, std::string::npos) << "the preview never said it was ready";
    start = run.output.find('>', start) + 1;
    report = json::parse(run.output.substr(start, run.output.find("</pre>", start) - start));
    // A copy for the README when asked for: QZ_PREVIEW_SCREENSHOT=docs/preview.png
    const char* keep = std::getenv("QZ_PREVIEW_SCREENSHOT");
    if (keep && *keep && previewName == "hello.php.html")
      std::filesystem::copy_file(png, keep, std::filesystem::copy_options::overwrite_existing);
  }

  // Every lock of the merged page is drawn and tied to one entry: its piece
  // (the decoded code, at its line of the source page) or, for an empty
  // code, the entry after the piece of the lock before it; and the entry's
  // click selects exactly the locks that select it.
  void ExpectLocksTiedToTheirCode(const std::string& source, const std::string& merged) {
    size_t nLocks = 0;
    for (size_t at = merged.find("<qz:lock "); at != std::string::npos; at = merged.find("<qz:lock ", at + 1)) ++nLocks;
    const json& locks = report["locks"];
    const json& entries = report["entries"];
    ASSERT_EQ(locks.size(), nLocks);
    EXPECT_EQ(report["badges"], nLocks);
    std::vector<std::set<int>> selecting(entries.size());
    std::string lastLabel;
    for (size_t k = 0; k < locks.size(); ++k) {
      const json& lock = locks[k];
      SCOPED_TRACE("lock " + std::to_string(k + 1) + " code " + lock["code"].get<std::string>());
      ASSERT_EQ(lock["viaLock"].size(), 1u);
      EXPECT_EQ(lock["viaBadge"], lock["viaLock"]);
      EXPECT_EQ(lock["lockAlone"], json::array({lock["index"]}));
      EXPECT_TRUE(lock["badgeShown"]);
      int e = lock["viaLock"][0];
      const json& entry = entries[static_cast<size_t>(e)];
      selecting[static_cast<size_t>(e)].insert(static_cast<int>(k));
      EXPECT_EQ(lock["badge"], entry["label"]);
      std::string code = DecodeLockCode(lock["code"].get<std::string>());
      if (code.empty()) {
        EXPECT_EQ(entry["kind"], "qz-repeat");
        EXPECT_EQ(entry["label"], lastLabel + "+");
        continue;
      }
      EXPECT_EQ(entry["kind"], "qz-piece");
      EXPECT_EQ(entry["code"], code);
      lastLabel = entry["label"].get<std::string>();
    }
    for (size_t e = 0; e < entries.size(); ++e) {
      const json& entry = entries[e];
      SCOPED_TRACE("entry " + entry["label"].get<std::string>());
      EXPECT_EQ(entry["selects"].get<std::set<int>>(), selecting[e]);
      EXPECT_EQ(entry["chips"].get<std::set<int>>(), selecting[e]);
      EXPECT_EQ(entry["selectedAlone"], json::array({e}));
      if (entry["kind"] != "qz-piece") continue;
      EXPECT_TRUE(CodeStartsOnLine(source, entry["code"], entry["line"])) << "line " << entry["line"];
    }
  }

  // The search for a line of one piece's code shows that entry and only
  // entries that hold the line; clearing it shows them all.
  void ExpectSearchFilters() {
    const json& search = report["search"];
    const json& entries = report["entries"];
    std::set<int> shown = search["shown"].get<std::set<int>>();
    EXPECT_TRUE(shown.count(search["target"].get<int>())) << search.dump();
    EXPECT_LT(shown.size(), entries.size()) << search.dump();
    EXPECT_EQ(report["shownAfterClearing"], entries.size());
  }

  // The highlighted word's box is mostly the highlight colour (the rest is
  // the glyphs), and the strip just left of it has none.
  void ExpectWordHighlighted(const std::string& word) {
    const json& box = report["highlight"];
    ASSERT_EQ(box["text"], word);
    int left = box["left"].get<double>() + 1, top = box["top"].get<double>() + 1;
    int width = box["width"].get<double>() - 2, height = box["height"].get<double>() - 2;
    EXPECT_GT(ShareOfColour(shot, left, top, width, height, kHighlight), 0.4) << box.dump();
    EXPECT_EQ(ShareOfColour(shot, left - 12, top, 8, height, kHighlight), 0) << box.dump();
  }

  void CheckExample(const std::string& page, const std::string& serverArgs) {
    std::string path = std::string(QZ_EXAMPLES_DIR) + "/" + page;
    ASSERT_NO_FATAL_FAILURE(Translate(serverArgs + " --preview " + page + ".html -o merged.html " + Quoted(path)));
    ASSERT_NO_FATAL_FAILURE(Open(page + ".html"));
    EXPECT_EQ(report["title"], "Preview of " + page);
    ExpectLocksTiedToTheirCode(Read(path), Read(Path("merged.html")));
    ExpectSearchFilters();
    ExpectWordHighlighted("Ada");
  }

  char folder[21] = "/tmp/qzbrowserXXXXXX";
  std::string chromium;
  json report;
  Png shot;
};

}  // namespace

TEST_F(PreviewBrowserTest, PhpExample) { CheckExample("hello.php", ""); }

TEST_F(PreviewBrowserTest, ErbExample) { CheckExample("hello.erb", ""); }

TEST_F(PreviewBrowserTest, AspxExampleAnsweredElsewhere) {
  CheckExample("hello.aspx", "--server-output " + Quoted(std::string(QZ_EXAMPLES_DIR) + "/hello.aspx.server-output.html"));
}

// Thousands of locks in table cells, a third of them page content left out:
// all drawn, and those clicked tied to their code.
TEST_F(PreviewBrowserTest, ThousandsOfLocksAreAllDrawn) {
  std::string page = "<html><body><table>\n";
  for (int i = 0; i < 1000; ++i) {
    std::string n = std::to_string(i);
    page += "<tr><td><?= " + n + " * 2 ?></td><td><?php if (" + n + " % 2): ?><b>odd</b><?php endif; ?></td></tr>\n";
  }
  Write("big.php", page + "</table></body></html>\n");
  ASSERT_NO_FATAL_FAILURE(Translate("--preview big.html -o merged.html big.php"));
  ASSERT_NO_FATAL_FAILURE(Open("big.html"));

  std::string merged = Read(Path("merged.html"));
  size_t nLocks = 0;
  for (size_t at = merged.find("<qz:lock "); at != std::string::npos; at = merged.find("<qz:lock ", at + 1)) ++nLocks;
  EXPECT_GT(nLocks, 3000u);
  EXPECT_EQ(report["badges"], nLocks);
  EXPECT_EQ(report["shownBadges"], nLocks);
  ASSERT_GE(report["locks"].size(), 30u);
  for (const json& lock : report["locks"]) {
    SCOPED_TRACE("lock " + lock["index"].dump());
    ASSERT_EQ(lock["viaLock"].size(), 1u);
    EXPECT_EQ(lock["lockAlone"], json::array({lock["index"]}));
    const json& entry = report["entries"][lock["viaLock"][0].get<size_t>()];
    EXPECT_EQ(lock["badge"], entry["label"]);
    std::string code = DecodeLockCode(lock["code"].get<std::string>());
    EXPECT_EQ(entry["code"], code.empty() ? json() : json(code));
  }
}

// Server output that would turn the page red and rename both documents if
// any of its script ran, or if the files beside the preview could be loaded.
TEST_F(PreviewBrowserTest, ServerOutputRunsNoScriptAndLoadsNothing) {
  const std::string run = "document.title='pwned';parent.document.title='pwned';"
                          "document.documentElement.style.background='rgb(255,0,0)'";
  const std::string hostile =
      "<script>" + run + "</script><img src=\"nothing.png\" onerror=\"" + run + "\"><svg onload=\"" + run +
      "\"></svg><iframe srcdoc=\"&lt;script&gt;parent.parent.document.title='pwned'&lt;/script&gt;\"></iframe>"
      "<link rel=\"stylesheet\" href=\"red.css\"><img src=\"red.svg\" width=\"60\" height=\"60\">"
      "<meta http-equiv=\"refresh\" content=\"0; url=red.html\">\"></iframe></script>";
  const std::string breakout = "<%= \"\\\"></iframe></script><script>parent.document.title='pwned'</script>\" %>";
  Write("page.aspx", "<%@ Page Language=\"C#\" %>\n<html><head><title>calm</title></head>\n<body>\n"
                     "<p>Hello <%= Name %>, then <%= Evil %> after</p>\n<p>" + breakout + "</p>\n</body></html>\n");
  Write("red.css", "html, body, p { background: rgb(255, 0, 0) !important; }\n");
  Write("red.svg", "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"60\" height=\"60\"><rect width=\"60\" "
                   "height=\"60\" fill=\"rgb(255,0,0)\"/></svg>\n");
  Write("red.html", "<body style=\"background: rgb(255, 0, 0)\"><title>pwned</title></body>\n");

  // The answer a server would give: the labelled page with the code run.
  ASSERT_NO_FATAL_FAILURE(Translate("--labelled labelled.aspx page.aspx"));
  std::string answer = Read(Path("labelled.aspx"));
  answer.replace(answer.find("<%= Evil %>"), 11, hostile);
  answer.replace(answer.find("<%= Name %>"), 11, "Ada");
  answer.replace(answer.find(breakout), breakout.size(), "harmless");
  Write("answer.html", answer);
  ASSERT_NO_FATAL_FAILURE(Translate("--server-output answer.html --preview page.html -o merged.html page.aspx"));
  ASSERT_NO_FATAL_FAILURE(Open("page.html"));

  EXPECT_EQ(report["title"], std::string("Preview of page.aspx"));
  EXPECT_EQ(report["frameTitle"], std::string("calm"));
  static const unsigned char kRed[] = {255, 0, 0};
  EXPECT_EQ(ShareOfColour(shot, 0, 0, shot.width, shot.height, kRed), 0);
  ExpectLocksTiedToTheirCode(Read(Path("page.aspx")), Read(Path("merged.html")));
  ExpectWordHighlighted("Ada");
}
