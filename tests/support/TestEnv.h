#pragma once
// Test helpers: a scratch folder that every program folder lives under (QUILLON_HOME), and
// running the quillon binary.

#include <optional>
#include <string>
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
// Runs any program (argv[0] looked up on PATH).
CommandResult runProgram(const std::vector<std::string>& argv, const std::string& input = {});

// Writes `content` to `path`, creating parent folders.
void writeFile(const std::string& path, const std::string& content);
std::string readFile(const std::string& path);

}  // namespace quillon::test
