// Archives made at test time by real tools (zip, python's zipfile and tarfile, GNU tar, bsdtar,
// 7zz, gzip, bzip2) and the RAR files in data/: each format extracts to the original tree byte
// for byte, zips made here open in other tools, wrong passwords and bad files give their
// messages, hostile archives write nothing outside and leave nothing behind, a cancel stops
// between entries, and `quillon zip` / `quillon extract` do the same from the shell, with an
// FTP server on either side.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <map>
#include <tuple>

#include "archives/FileCompressor.h"
#include "support/FtpServers.h"
#include "support/TestEnv.h"

using namespace quillon;
using namespace quillon::test;
namespace fs = std::filesystem;

namespace {

const std::string kSecret = "s3cret pass";

struct stat lstatOf(const std::string& path) {
    struct stat st {};
    ::lstat(path.c_str(), &st);
    return st;
}

// Short enough for a failure message, different enough for a test.
std::string digest(const std::string& bytes) {
    return std::to_string(bytes.size()) + ":" + std::to_string(std::hash<std::string>{}(bytes));
}

// Every path below `root` with what it is: a digest of a file's bytes, a link's target, or a
// folder; and the modification time of files and folders.
std::map<std::string, std::string> describeTree(const std::string& root) {
    std::map<std::string, std::string> out;
    std::error_code ec;
    for (auto it = fs::recursive_directory_iterator(root, ec); !ec && it != fs::end(it);
         it.increment(ec)) {
        auto path = it->path().string();
        auto st = lstatOf(path);
        std::string what = S_ISLNK(st.st_mode)   ? "link " + fs::read_symlink(path, ec).string()
                           : S_ISDIR(st.st_mode) ? "folder"
                                                 : "file " + digest(readFile(path));
        if (!S_ISLNK(st.st_mode)) what += " @" + std::to_string(st.st_mtime);
        out[it->path().lexically_relative(root).string()] = what;
    }
    return out;
}

// The shell in `dir`.
CommandResult sh(const std::string& dir, const std::string& script) {
    return runProgram({"sh", "-c", "cd '" + dir + "' && " + script});
}

struct Outcome {
    Status status;
    std::vector<int> percents;
};

class Archives : public ::testing::Test {
  protected:
    // src/tree: names with blanks and non-ASCII, a name of 150 characters, an empty folder, a
    // symbolic link, a hard link, and files and folders of known (even) modification times.
    static void SetUpTestSuite() {
        home_ = std::make_unique<IsolatedHome>();
        dir_ = std::make_unique<ScratchDir>("archives");
        std::string t = src() + "/tree";
        writeFile(t + "/dir a/f.txt", "hello\n");
        std::string data;
        for (int i = 0; i < 20000; ++i)
            data += std::to_string(i * 7919 % 10007) + (i % 7 ? "," : "\n");
        writeFile(t + "/dir a/sub/data.bin", data);
        writeFile(t + "/dir a/" + std::string(146, 'l') + ".txt", "long\n");
        writeFile(t + "/ünï cödé 漢字.txt", "unicode\n");
        fs::create_directories(t + "/empty");
        fs::create_symlink("f.txt", t + "/dir a/link");
        fs::create_hard_link(t + "/dir a/f.txt", t + "/dir a/hard");
        writeFile(src() + "/notes.txt", data);
        long when = 1600000000;
        std::vector<std::string> paths;
        for (auto& e : fs::recursive_directory_iterator(t)) paths.push_back(e.path().string());
        std::sort(paths.rbegin(), paths.rend());  // children before their folders
        paths.push_back(t);
        for (auto& p : paths) {
            struct timespec times[2] = {{when, 0}, {when, 0}};
            ::utimensat(AT_FDCWD, p.c_str(), times, AT_SYMLINK_NOFOLLOW);
            when += 2;
        }
        fs::create_directories(arc());
    }
    static void TearDownTestSuite() {
        dir_.reset();
        home_.reset();
    }

    static std::string src() { return dir_->path() + "/src"; }
    static std::string arc() { return dir_->path() + "/arc"; }
    static std::string out(const std::string& name) {
        std::string p = dir_->path() + "/out/" + name;
        fs::create_directories(p);
        return p;
    }

    // arc/<name>, made by the shell command run in src/ the first time it is asked for.
    static std::string made(const std::string& name, const std::string& command) {
        std::string path = arc() + "/" + name;
        if (!fs::exists(path)) {
            auto r = sh(src(), command);
            EXPECT_EQ(r.exitCode, 0) << command << ": " << r.err;
        }
        return path;
    }

    static Outcome extract(FileCompressor& fc, const std::string& archive,
                           const std::string& parent,
                           const std::optional<std::string>& password = std::nullopt) {
        Outcome o;
        fc.progressHandler = [&](int percent, std::int64_t, std::int64_t) {
            o.percents.push_back(percent);
        };
        o.status = fc.decompressFile(archive, parent, password);
        return o;
    }

    static std::unique_ptr<IsolatedHome> home_;
    static std::unique_ptr<ScratchDir> dir_;
};
std::unique_ptr<IsolatedHome> Archives::home_;
std::unique_ptr<ScratchDir> Archives::dir_;

const char* kPyZip = R"(import zipfile, time
with zipfile.ZipFile(sys.argv[-1], "w", zipfile.ZIP_DEFLATED) as z:
    for base, dirs, files in os.walk("tree"):
        for name in sorted(dirs + files):
            p = os.path.join(base, name)
            if os.path.islink(p):
                zi = zipfile.ZipInfo(p, time.localtime(os.lstat(p).st_mtime)[:6])
                zi.create_system, zi.external_attr = 3, 0o120777 << 16
                z.writestr(zi, os.readlink(p))
            else:
                z.write(p)
)";

// Zips whose names are stored as raw bytes in CP866 and in Shift_JIS, without the UTF-8 flag.
const char* kEncodedZips = R"(python3 - <<'EOF'
import zipfile
class Raw(zipfile.ZipInfo):
    def _encodeFilenameFlags(self):
        return self.filename.encode(self.codec), self.flag_bits
for codec, name in (("cp866", "папка/Привет мир.txt"), ("shift_jis", "日本語のファイル.txt")):
    with zipfile.ZipFile("../arc/" + codec + ".zip", "w") as z:
        zi = Raw(name)
        zi.codec = codec
        z.writestr(zi, b"text")
EOF)";

TEST_F(Archives, EveryFormatExtractsTheTreeByteForByte) {
    enum class Expect { Tree, TreeNoHardLink, Notes, Twice, Rar4, Rar5 };
    struct Case {
        std::string archive;
        std::string make;  // shell command in src/
        Expect expect;
    };
    std::string data = QUILLON_SOURCE_DIR "/tests/archives/data/";
    const std::vector<Case> cases = {
        {"tree.zip", "zip -qry ../arc/tree.zip tree", Expect::TreeNoHardLink},
        {"tree-py.zip",
         "python3 - ../arc/tree-py.zip <<'EOF'\nimport os, sys\n" + std::string(kPyZip) + "EOF",
         Expect::TreeNoHardLink},
        {"tree.tar", "tar cf ../arc/tree.tar tree", Expect::Tree},
        {"tree.tar.gz", "tar czf ../arc/tree.tar.gz tree", Expect::Tree},
        {"tree.tgz", "bsdtar -czf ../arc/tree.tgz tree", Expect::Tree},
        {"tree.tar.bz2", "tar cjf ../arc/tree.tar.bz2 tree", Expect::Tree},
        {"tree.tbz2",
         "python3 -c 'import tarfile; tarfile.open(\"../arc/tree.tbz2\", \"w:bz2\", "
         "format=tarfile.PAX_FORMAT).add(\"tree\")'",
         Expect::Tree},
        {"tree.7z", "7zz a -snl -bso0 -bsp0 ../arc/tree.7z tree", Expect::TreeNoHardLink},
        {"notes.txt.gz", "gzip -c notes.txt > ../arc/notes.txt.gz", Expect::Notes},
        {"notes.txt.bz2", "bzip2 -c notes.txt > ../arc/notes.txt.bz2", Expect::Notes},
        {"twice.gzip", "(gzip -c notes.txt; gzip -c notes.txt) > ../arc/twice.gzip", Expect::Twice},
        {"rar4.rar", "cp " + data + "rar4-unicode-names.rar ../arc/rar4.rar", Expect::Rar4},
        {"rar5.cbr", "cp " + data + "rar5-unicode-names.rar ../arc/rar5.cbr", Expect::Rar5},
    };
    auto tree = describeTree(src() + "/tree");
    std::string notes = readFile(src() + "/notes.txt");
    for (std::size_t i = 0; i < cases.size(); ++i) {
        auto& c = cases[i];
        SCOPED_TRACE(c.archive);
        std::string archive = made(c.archive, c.make);
        FileCompressor fc;
        auto parent = out("f" + std::to_string(i));
        auto o = extract(fc, archive, parent);
        ASSERT_TRUE(o.status) << o.status.error().reason;
        std::string base = fs::path(c.archive).stem().string();
        EXPECT_EQ(fc.decompressOutputFolder(), parent + "/" + base);
        ASSERT_FALSE(o.percents.empty());
        EXPECT_TRUE(std::is_sorted(o.percents.begin(), o.percents.end()));
        EXPECT_EQ(o.percents.back(), 100);
        std::string got = parent + "/" + base;
        switch (c.expect) {
            case Expect::Tree:
            case Expect::TreeNoHardLink:
                EXPECT_EQ(describeTree(got + "/tree"), tree);
                if (c.expect == Expect::Tree) {
                    EXPECT_EQ(lstatOf(got + "/tree/dir a/hard").st_ino,
                              lstatOf(got + "/tree/dir a/f.txt").st_ino);
                }
                break;
            case Expect::Notes:
                EXPECT_EQ(readFile(got + "/notes.txt"), notes);
                break;
            case Expect::Twice:
                EXPECT_EQ(readFile(got + "/twice"), notes + notes);
                break;
            case Expect::Rar4:
                EXPECT_EQ(
                    readFile(got + "/表だよ/漢字長いファイル名long-filename-in-漢字.txt").size(),
                    5u);
                EXPECT_TRUE(fs::is_regular_file(
                    got + "/表だよ/新しいフォルダ/新規テキスト ドキュメント.txt"));
                break;
            case Expect::Rar5:
                EXPECT_EQ(readFile(got + "/𝒻𝒾𝓁𝑒.txt").size(), 33u);
                EXPECT_EQ(lstatOf(got + "/𝒽𝒶𝓇𝒹𝓁𝒾𝓃𝓀.txt").st_ino, lstatOf(got + "/𝒻𝒾𝓁𝑒.txt").st_ino);
                EXPECT_EQ(fs::read_symlink(got + "/𝓈𝓎𝓂𝓁𝒾𝓃𝓀.txt").string(), "𝒻𝒾𝓁𝑒.txt");
                EXPECT_EQ(fs::read_symlink(got + "/𝒹𝒾𝓇_𝓈𝓎𝓂𝓁𝒾𝓃𝓀").string(), "𝒹𝒾𝓇");
                EXPECT_TRUE(fs::is_directory(got + "/𝒹𝒾𝓇"));
                break;
        }
    }
}

TEST_F(Archives, ZipsMadeHereOpenElsewhereAndExtractAgain) {
    auto tree = describeTree(src() + "/tree");
    std::string folder = out("made");
    struct Case {
        std::string zip;
        std::optional<std::string> password;
        ZipArchive::Encryption encryption;
        std::string opener;  // shell command in `folder` that must extract it into x-<zip>
    };
    const std::vector<Case> cases = {
        {"plain.zip", std::nullopt, ZipArchive::Encryption::Traditional,
         "unzip -q plain.zip -d x-plain.zip"},
        {"traditional.zip", kSecret, ZipArchive::Encryption::Traditional,
         "unzip -q -P '" + kSecret + "' traditional.zip -d x-traditional.zip"},
        {"aes.zip", kSecret, ZipArchive::Encryption::Aes256,
         "7zz x -bso0 -bsp0 '-p" + kSecret + "' aes.zip -ox-aes.zip"},
    };
    for (auto& c : cases) {
        SCOPED_TRACE(c.zip);
        FileCompressor fc;
        fc.zipEncryption = c.encryption;
        std::vector<int> percents;
        fc.progressHandler = [&](int p, std::int64_t, std::int64_t) { percents.push_back(p); };
        ASSERT_TRUE(fc.compressItems({src() + "/tree"}, folder + "/" + c.zip, c.password));
        ASSERT_FALSE(percents.empty());
        EXPECT_EQ(percents.back(), 100);
        auto r = sh(folder, c.opener);
        ASSERT_EQ(r.exitCode, 0) << r.err;
        auto other = describeTree(folder + "/x-" + c.zip + "/tree");
        // Other tools keep the link as a link; all of them get the hard link as a copy.
        EXPECT_EQ(other, tree);
        // Extracted here twice: the second output folder is "<name> 2".
        for (std::string suffix : {"", " 2"}) {
            FileCompressor again;
            auto o = extract(again, folder + "/" + c.zip, folder + "/again", c.password);
            ASSERT_TRUE(o.status) << o.status.error().reason;
            std::string base = fs::path(c.zip).stem().string() + suffix;
            EXPECT_EQ(again.decompressOutputFolder(), folder + "/again/" + base);
            EXPECT_EQ(describeTree(folder + "/again/" + base + "/tree"), tree);
        }
    }
}

TEST_F(Archives, PasswordsAndBadFilesGiveTheirTitlesAndTexts) {
    made("pw.zip", "zip -qry -P '" + kSecret + "' ../arc/pw.zip tree");
    made("pw.7z", "7zz a -snl -bso0 -bsp0 '-p" + kSecret + "' ../arc/pw.7z tree");
    made("pwh.7z", "7zz a -snl -mhe=on -bso0 -bsp0 '-p" + kSecret + "' ../arc/pwh.7z tree");
    // A RAR whose first file says it is encrypted (the header's CRC made to match).
    made("locked.rar",
         "python3 - <<'EOF'\nimport zlib\n"
         "d = bytearray(open('" QUILLON_SOURCE_DIR
         "/tests/archives/data/rar4-unicode-names.rar', 'rb').read())\n"
         "o = 20\nassert d[o + 2] == 0x74\nd[o + 3] |= 4\n"
         "size = int.from_bytes(d[o + 5:o + 7], 'little')\n"
         "d[o:o + 2] = (zlib.crc32(bytes(d[o + 2:o + size])) & 0xffff).to_bytes(2, 'little')\n"
         "open('../arc/locked.rar', 'wb').write(d)\nEOF");
    for (auto name : {"bad.zip", "bad.rar", "bad.7z", "bad.gz", "bad.bz2", "bad.tar"})
        writeFile(arc() + "/" + name, std::string(3000, 'x'));
    auto tree = describeTree(src() + "/tree");
    struct Case {
        std::string archive;
        std::optional<std::string> password;
        std::string title;  // empty: extracts to the tree
        std::string text;
        std::string sevenZip = "7zz";
    };
    const std::string bad7z = "Need password to unarchive or this file is not a 7z archieve.";
    const std::vector<Case> cases = {
        {"pw.zip", std::nullopt, "Need Password", "Need password to unarchive."},
        {"pw.zip", "wrong", "Incorrect Password", "The password is incorrect."},
        {"pw.zip", kSecret, "", ""},
        {"pw.7z", std::nullopt, "Need Password or Bad File", bad7z},
        {"pw.7z", "wrong", "Need Password or Bad File", bad7z},
        {"pw.7z", kSecret, "", ""},
        {"pwh.7z", "wrong", "Need Password or Bad File", bad7z},
        {"pwh.7z", kSecret, "", ""},
        {"pwh.7z", kSecret, "Need Password or Bad File", bad7z, "/nonexistent/7zz"},
        {"locked.rar", std::nullopt, "Failed to unrar",
         "locked.rar is encrypted: encrypted RAR archives cannot be extracted here."},
        {"bad.zip", std::nullopt, "Failed to unzip", "bad.zip is not a Zip archive."},
        {"bad.rar", std::nullopt, "Failed to unrar", "bad.rar is not a RAR archive."},
        {"bad.7z", std::nullopt, "Need Password or Bad File", bad7z},
        {"bad.gz", std::nullopt, "Failed", "bad.gz is not a valid gzip archive."},
        {"bad.bz2", std::nullopt, "Failed", "bad.bz2 is not a valid bzip2 archive."},
        {"bad.tar", std::nullopt, "Failed", "bad.tar failed to untar."},
    };
    for (std::size_t i = 0; i < cases.size(); ++i) {
        auto& c = cases[i];
        SCOPED_TRACE(c.archive + " with " + c.password.value_or("no password"));
        FileCompressor fc;
        fc.sevenZipProgram = c.sevenZip;
        auto parent = out("m" + std::to_string(i));
        auto o = extract(fc, arc() + "/" + c.archive, parent, c.password);
        if (c.title.empty()) {
            ASSERT_TRUE(o.status) << o.status.error().reason;
            EXPECT_EQ(describeTree(fc.decompressOutputFolder() + "/tree"), tree);
            EXPECT_EQ(o.percents.back(), 100);
            continue;
        }
        ASSERT_FALSE(o.status);
        EXPECT_EQ(ArchiveError::title(o.status.error()), c.title);
        EXPECT_EQ(o.status.error().reason, c.text);
        EXPECT_TRUE(fs::is_empty(parent));
    }
}

TEST_F(Archives, HostileArchivesWriteNothingOutsideAndLeaveNothing) {
    std::string outside = dir_->path() + "/outside";
    writeFile(outside + "/victim.txt", "victim");
    made("slip.zip", "python3 - '" + outside + R"(' <<'EOF'
import io, os, sys, tarfile, zipfile
os.chdir("../arc"); outside, up = sys.argv[1], "../../../outside/"
def tar(name, entries):
    with tarfile.open(name, "w", format=tarfile.GNU_FORMAT) as t:
        for path, kind, arg in entries:
            ti = tarfile.TarInfo(path)
            if kind == "file":
                ti.size = len(arg); t.addfile(ti, io.BytesIO(arg))
            else:
                ti.type, ti.linkname = (tarfile.SYMTYPE if kind == "sym" else tarfile.LNKTYPE), arg
                t.addfile(ti)
tar("absolute.tar", [(outside + "/abs.txt", "file", b"evil")])
tar("through-link.tar", [("l", "sym", outside), ("l/evil.txt", "file", b"evil")])
tar("through-relative-link.tar", [("l", "sym", "../../../outside"), ("l/evil.txt", "file", b"evil")])
tar("link-chain.tar", [("y", "sym", "x/x/x/../../.."), ("x", "sym", ".")])
tar("hard-outside.tar", [("h", "hard", up + "victim.txt")])
tar("hard-absolute.tar", [("h", "hard", outside + "/victim.txt")])
tar("hard-to-link.tar", [("a/b/l", "sym", "../../x"), ("h", "hard", "a/b/l")])
with zipfile.ZipFile("bomb.zip", "w", zipfile.ZIP_DEFLATED, compresslevel=9) as z:
    with z.open("zeros.bin", "w") as f:
        for _ in range(100): f.write(bytes(1 << 20))
with zipfile.ZipFile("slip.zip", "w") as z: z.writestr(up + "evil.txt", b"evil")
EOF)");
    made("tree.tar", "tar cf ../arc/tree.tar tree");
    made("tree.zip", "zip -qry ../arc/tree.zip tree");
    made("tree-cut.zip", "head -c 2000 ../arc/tree.zip > ../arc/tree-cut.zip");
    made("tree.tar.gz", "tar czf ../arc/tree.tar.gz tree");
    made("tree-cut.tar.gz", "head -c 3000 ../arc/tree.tar.gz > ../arc/tree-cut.tar.gz");
    struct Case {
        std::string archive;
        long code;
        std::string text = "";  // when not empty
        std::function<void(ExtractLimits&)> limits = nullptr;
    };
    const std::vector<Case> cases = {
        {"slip.zip", ArchiveErrorCode::UnsafeEntry},
        {"absolute.tar", ArchiveErrorCode::UnsafeEntry},
        {"through-link.tar", ArchiveErrorCode::UnsafeEntry},
        {"through-relative-link.tar", ArchiveErrorCode::UnsafeEntry},
        {"link-chain.tar", ArchiveErrorCode::UnsafeEntry,
         "link-chain.tar holds an entry that would be written outside its folder (y); extraction "
         "was stopped and nothing was kept."},
        {"hard-outside.tar", ArchiveErrorCode::UnsafeEntry},
        {"hard-absolute.tar", ArchiveErrorCode::UnsafeEntry},
        {"hard-to-link.tar", ArchiveErrorCode::UnsafeEntry},
        {"bomb.zip", ArchiveErrorCode::TooLarge,
         "bomb.zip expands to more than 200 times its size; extraction was stopped and nothing "
         "was kept."},
        {"tree-cut.tar.gz", ArchiveErrorCode::NotGzip,
         "tree-cut.tar.gz is not a valid gzip archive."},
        {"tree-cut.zip", ArchiveErrorCode::NotZip, "tree-cut.zip is not a Zip archive."},
        {"tree.tar", ArchiveErrorCode::TooLarge,
         "tree.tar holds more than 5 entries; extraction was stopped and nothing was kept.",
         [](ExtractLimits& l) { l.maxEntries = 5; }},
        {"tree.zip", ArchiveErrorCode::NoSpace, "No enough free space!",
         [](ExtractLimits& l) { l.minFreeSpace = 1ull << 62; }},
    };
    for (std::size_t i = 0; i < cases.size(); ++i) {
        auto& c = cases[i];
        SCOPED_TRACE(c.archive);
        FileCompressor fc;
        if (c.limits) c.limits(fc.limits);
        auto parent = out("h" + std::to_string(i));
        auto o = extract(fc, arc() + "/" + c.archive, parent);
        ASSERT_FALSE(o.status);
        EXPECT_EQ(o.status.error().code, c.code) << o.status.error().reason;
        if (!c.text.empty()) {
            EXPECT_EQ(o.status.error().reason, c.text);
        }
        EXPECT_TRUE(fs::is_empty(parent));
        EXPECT_EQ(describeTree(outside).size(), 1u);
        EXPECT_EQ(readFile(outside + "/victim.txt"), "victim");
        EXPECT_EQ(lstatOf(outside + "/victim.txt").st_nlink, 1u);
    }
}

TEST_F(Archives, CancelStopsBetweenEntriesAndKeepsNothing) {
    std::string folder = out("cancel");
    for (int i = 0; i < 40; ++i)
        writeFile(folder + "/many/f" + std::to_string(i), std::string(200000, 'a' + i % 26));
    writeFile(folder + "/keep.zip", "an older zip");
    // Making a zip: cancelled after the first progress, the older file stays as it was.
    FileCompressor maker;
    maker.progressHandler = [&](int, std::int64_t, std::int64_t) { maker.cancelOperation(); };
    auto made = maker.compressItems({folder + "/many"}, folder + "/keep.zip");
    ASSERT_FALSE(made);
    EXPECT_EQ(made.error().code, ArchiveErrorCode::Cancelled);
    EXPECT_EQ(readFile(folder + "/keep.zip"), "an older zip");
    ASSERT_TRUE(FileCompressor().compressItems({folder + "/many"}, folder + "/many.zip"));
    EXPECT_EQ(std::distance(fs::directory_iterator(folder), fs::directory_iterator()), 3);

    // Extracting: the entries after the cancel are never written, and the folder goes.
    FileCompressor fc;
    int entriesSeen = 0;
    fc.progressHandler = [&](int percent, std::int64_t, std::int64_t) {
        ++entriesSeen;
        EXPECT_LT(percent, 100);
        fc.cancelOperation();
    };
    auto status = fc.decompressFile(folder + "/many.zip", folder + "/x", std::nullopt);
    ASSERT_FALSE(status);
    EXPECT_EQ(status.error().code, ArchiveErrorCode::Cancelled);
    EXPECT_EQ(entriesSeen, 1);
    EXPECT_TRUE(fs::is_empty(folder + "/x"));
}

TEST_F(Archives, CommandsZipAndExtractLocallyAndThroughFtp) {
    auto tree = describeTree(src() + "/tree");
    std::string folder = out("cli");
    ASSERT_TRUE(quillonExits(0,
                             {"zip", src() + "/tree", "-o", folder + "/t.zip", "--password-stdin"},
                             "zipped", kSecret + "\n"));
    ASSERT_TRUE(quillonExits(
        0, {"zip", src() + "/tree", "-o", folder + "/a.zip", "--password-stdin", "--aes"}, "",
        kSecret + "\n"));
    EXPECT_EQ(sh(folder, "unzip -q -P '" + kSecret + "' t.zip -d u").exitCode, 0);
    EXPECT_EQ(describeTree(folder + "/u/tree"), tree);
    EXPECT_EQ(sh(folder, "7zz t -bso0 -bsp0 '-p" + kSecret + "' a.zip").exitCode, 0);
    // AES is not what plain unzip opens.
    EXPECT_NE(sh(folder, "unzip -q -P '" + kSecret + "' a.zip -d v").exitCode, 0);

    EXPECT_TRUE(quillonExits(1, {"extract", folder + "/t.zip"},
                             "Need Password: Need password to unarchive."));
    EXPECT_TRUE(quillonExits(1, {"extract", folder + "/t.zip", "--password-stdin"},
                             "Incorrect Password: The password is incorrect.", "nope\n"));
    ASSERT_TRUE(quillonExits(0, {"extract", folder + "/t.zip", "--password-stdin"},
                             "extracted t.zip -> " + folder + "/t", kSecret + "\n"));
    EXPECT_EQ(describeTree(folder + "/t/tree"), tree);

    // Zip names stored in another encoding extract with the one given.
    made("cp866.zip", kEncodedZips);
    for (auto [zip, encoding, name] : {std::tuple{"cp866", "cp866", "папка/Привет мир.txt"},
                                       {"shift_jis", "sjis", "日本語のファイル.txt"}}) {
        ASSERT_TRUE(quillonExits(
            0, {"extract", arc() + "/" + zip + ".zip", "--encoding", encoding, "--to", folder}));
        EXPECT_EQ(readFile(folder + "/" + zip + "/" + name), "text");
    }

    auto server = FtpServer::start(FtpServerKind::Pyftpdlib);
    ASSERT_TRUE(server);
    server->writeFile("/in/tree.tar.gz",
                      readFile(made("tree.tar.gz", "tar czf ../arc/tree.tar.gz tree")));
    server->makeDir("/dest");
    server->chownTree();
    // --to must name an existing folder.
    EXPECT_NE(
        runQuillon({"extract", server->url("/in/tree.tar.gz"), "--to", folder + "/ftp"}).exitCode,
        0);
    fs::create_directories(folder + "/ftp");
    ASSERT_TRUE(
        quillonExits(0, {"extract", server->url("/in/tree.tar.gz"), "--to", folder + "/ftp"}));
    EXPECT_EQ(describeTree(folder + "/ftp/tree.tar/tree"), tree);
    ASSERT_TRUE(
        quillonExits(0, {"extract", server->url("/in/tree.tar.gz"), "--to", server->url("/dest")}));
    std::string there = server->hostPath("/dest/tree.tar/tree");
    EXPECT_EQ(readFile(there + "/dir a/sub/data.bin"),
              readFile(src() + "/tree/dir a/sub/data.bin"));
    EXPECT_EQ(readFile(there + "/ünï cödé 漢字.txt"), "unicode\n");
    EXPECT_TRUE(fs::is_directory(there + "/empty"));
    // The scratch folder of the upload is gone.
    for (auto& e : fs::recursive_directory_iterator(home_->path()))
        EXPECT_FALSE(contains(e.path().filename().string(), "extract-")) << e.path();
}

}  // namespace
