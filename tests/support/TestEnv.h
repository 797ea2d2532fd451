#pragma once
// Test helpers: scratch folders, a home that every program folder lives under (QUILLON_HOME),
// running the quillon binary and other programs, waiting on conditions, and file helpers.

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quillon::test {

// A fresh folder under the system temp folder, removed by the destructor.
class ScratchDir {
  public:
    explicit ScratchDir(const std::string& tag = "t");
    ~ScratchDir();
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;
    const std::string& path() const { return path_; }
    std::string operator/(const std::string& rel) const { return path_ + "/" + rel; }

  private:
    std::string path_;
};

// Points QUILLON_HOME at a fresh scratch folder for the life of the object, so nothing a test
// does reaches the real home folder.
class IsolatedHome {
  public:
    IsolatedHome();
    ~IsolatedHome();
    const std::string& path() const { return dir_.path(); }

  private:
    ScratchDir dir_;
    std::string previous_;
    bool hadPrevious_ = false;
};

// The shared database and preference store bind to the home of their first use: a program whose
// tests use them keeps this one home for all of them.
IsolatedHome& programHome();

// Tests on the shared stores: each starts with the program's home emptied, the preferences at
// their defaults and (unless told otherwise) the database open and empty.
class FreshHome : public ::testing::Test {
  protected:
    explicit FreshHome(bool openDatabase = true) : openDatabase_(openDatabase) {}
    void SetUp() override;
    void TearDown() override;

  private:
    bool openDatabase_;
};

// Sets the time zone (TZ) of this process and of the programs it runs, for the life of the
// object.
class ScopedTimeZone {
  public:
    explicit ScopedTimeZone(const std::string& zone);
    ~ScopedTimeZone();
    ScopedTimeZone(const ScopedTimeZone&) = delete;
    ScopedTimeZone& operator=(const ScopedTimeZone&) = delete;

  private:
    std::optional<std::string> previous_;
};

struct CommandResult {
    int exitCode = -1;
    std::string out;
    std::string err;
};
// Runs the built quillon binary with `args`, feeding `input` on standard input.
CommandResult runQuillon(const std::vector<std::string>& args, const std::string& input = {});
// Runs quillon; passes when it exits with `status` and its standard output or error holds
// `says`, and shows both otherwise.
::testing::AssertionResult quillonExits(int status, const std::vector<std::string>& args,
                                        std::string_view says = {}, const std::string& input = {});
// Runs any program (argv[0] looked up on PATH).
CommandResult runProgram(const std::vector<std::string>& argv, const std::string& input = {});
// curl without ~/.curlrc, quiet but showing errors, for at most a minute.
CommandResult curl(const std::vector<std::string>& args);

// Waits until `done` holds, looking every few milliseconds; whether it did within `limit`, which
// only bounds a failure (a loaded machine may take long).
bool waitUntil(const std::function<bool()>& done,
               std::chrono::seconds limit = std::chrono::seconds(120));
// Serves the main queue until `done` holds; whether it did within `limit`.
bool pumpUntil(const std::function<bool()>& done,
               std::chrono::seconds limit = std::chrono::seconds(120));

// Writes `content` to `path`, creating parent folders.
void writeFile(const std::string& path, const std::string& content);
std::string readFile(const std::string& path);
// Whether the file holds exactly `content`; a failure shows sizes and the first difference,
// never megabytes of bytes.
::testing::AssertionResult fileHolds(const std::string& path, const std::string& content);
// The names in a folder, sorted; empty when it cannot be read.
std::vector<std::string> namesIn(const std::string& folder);
// Bytes in a fixed pseudo-random pattern: the same `variant` gives the same bytes.
std::string randomBytes(std::size_t size, unsigned variant);
// The lines of `text`, without their line ends.
std::vector<std::string> lines(const std::string& text);
// A path's modification time in seconds since 1970 (with fractions), -1 when it cannot be read.
double mtimeOf(const std::string& path);
// Sets a path's access and modification times; fails the test when it cannot.
void setMtime(const std::string& path, double secondsSince1970);
// A path's permission bits, 0 when it cannot be read.
unsigned modeOf(const std::string& path);
inline bool contains(std::string_view text, std::string_view part) {
    return text.find(part) != std::string_view::npos;
}

}  // namespace quillon::test
