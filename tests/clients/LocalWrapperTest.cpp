// The storage-client conformance suite run against the local file system, then LocalWrapper and
// SandboxFileAccess behaviour beyond it.

#include "clients/local/LocalWrapper.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <regex>
#include <thread>

#include "clients/WrapperConformance.h"
#include "clients/local/SandboxFileAccess.h"

namespace quillon::test {
namespace {

ConformanceTarget localTarget() {
    ConformanceTarget target;
    target.name = "Local";
    target.open = [] {
        registerBuiltinClients();
        auto dir = std::make_shared<ScratchDir>("conformance-server");
        // Reachable by the unprivileged user of the permission probes.
        ::chmod(dir->path().c_str(), 0777);
        ConformanceSession session;
        session.remoteRoot = dir->path();
        session.serverDir = dir->path();
        // Every client of the session shares one record, as the tasks of one transfer do.
        auto info = std::make_shared<ServerInfo>();
        info->protocolType = ProtocolType::Local;
        info->rootFolderPath = "/";
        session.makeWrapper = [info] { return WrapperProxy::wrapperWithServerInfo(info); };
        session.close = [dir] {};
        return session;
    };
    target.runRestricted = runAsUnprivilegedUser;
    return target;
}

}  // namespace

INSTANTIATE_TEST_SUITE_P(Local, WrapperConformance, ::testing::Values(localTarget()),
                         conformanceTargetName);

}  // namespace quillon::test

namespace fs = std::filesystem;

namespace quillon {
namespace {

using test::HiddenFilesPref;
using test::IsolatedHome;
using test::readFile;
using test::ScratchDir;
using test::setMtime;
using test::writeFile;
using Reports = std::vector<std::pair<std::int64_t, std::int64_t>>;

constexpr std::int64_t MiB = 1024 * 1024;

std::shared_ptr<LocalWrapper> makeLocal() {
    auto info = std::make_shared<ServerInfo>();
    info->protocolType = ProtocolType::Local;
    info->rootFolderPath = "/";
    return std::make_shared<LocalWrapper>(info);
}

KvMetadata record(const std::string& path, bool isDir = false) {
    KvMetadata meta(path);
    meta.isDir = isDir;
    meta.localPath = path;
    return meta;
}

const KvMetadata& named(const KvMetadataList& items, const std::string& name) {
    static const KvMetadata none;
    auto* item = test::findNamed(items, name);
    EXPECT_TRUE(item) << "no item named " << name;
    return item ? *item : none;
}

ProgressHandler collectInto(std::shared_ptr<Reports> reports) {
    return [reports](std::int64_t done, std::int64_t total) { reports->emplace_back(done, total); };
}

// A local client, a scratch folder and a home of their own for every test.
class LocalWrapperTest : public ::testing::Test {
  protected:
    IsolatedHome home;
    ScratchDir dir;
    std::shared_ptr<LocalWrapper> wrapper = makeLocal();
};

TEST_F(LocalWrapperTest, CopyOf25MiBReportsProgressAt10And20And25MiB) {
    std::string content(25 * MiB, '\0');
    for (std::size_t i = 0; i < content.size(); i += 4096) content[i] = static_cast<char>(i >> 12);
    writeFile(dir / "source.bin", content);
    ::chmod((dir / "source.bin").c_str(), 0640);
    setMtime(dir / "source.bin", 1000000000);

    auto reports = std::make_shared<Reports>();
    auto r =
        wrapper->downloadSync(record(dir / "source.bin"), dir / "copy.bin", collectInto(reports));
    ASSERT_TRUE(r) << r.error().describe();
    // Progress arrives through the main queue, not on the copying thread.
    EXPECT_TRUE(reports->empty());
    MainQueue::shared().pump();
    EXPECT_EQ(*reports,
              (Reports{{10 * MiB, 25 * MiB}, {20 * MiB, 25 * MiB}, {25 * MiB, 25 * MiB}}));
    EXPECT_TRUE(test::fileHolds(dir / "copy.bin", content));

    struct stat st {};
    ASSERT_EQ(::stat((dir / "copy.bin").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0640u);
    EXPECT_EQ(st.st_mtim.tv_sec, 1000000000);
    EXPECT_EQ(test::namesIn(dir.path()), (std::vector<std::string>{"copy.bin", "source.bin"}));

    // A download onto its own path does nothing at all.
    reports->clear();
    r = wrapper->downloadSync(record(dir / "source.bin"), dir / "source.bin", collectInto(reports));
    ASSERT_TRUE(r) << r.error().describe();
    MainQueue::shared().pump();
    EXPECT_TRUE(reports->empty());
    EXPECT_TRUE(test::fileHolds(dir / "source.bin", content));
}

TEST_F(LocalWrapperTest, UploadIntoItsOwnFolderCopiesNothing) {
    writeFile(dir / "docs/a.txt", "a");
    auto reports = std::make_shared<Reports>();

    for (std::string folder : {dir / "docs", dir / "docs/"}) {
        auto r = wrapper->uploadSync(record(dir / "docs/a.txt"), record(folder, true),
                                     collectInto(reports));
        ASSERT_TRUE(r) << r.error().describe();
    }
    MainQueue::shared().pump();
    EXPECT_TRUE(reports->empty());
    EXPECT_EQ(test::namesIn(dir / "docs"), std::vector<std::string>{"a.txt"});

    // Into another folder it lands under the item's stored name.
    fs::create_directory(dir / "other");
    auto item = record(dir / "docs/a.txt");
    item.setName("renamed.txt");
    auto r = wrapper->uploadSync(item, record(dir / "other", true), collectInto(reports));
    ASSERT_TRUE(r) << r.error().describe();
    EXPECT_EQ(readFile(dir / "other/renamed.txt"), "a");
    MainQueue::shared().pump();
    EXPECT_EQ(*reports, (Reports{{1, 1}}));
}

TEST_F(LocalWrapperTest, PlaceholderListsUnderTheNameItStandsFor) {
    PlistDict resources{{"NSURLFileSizeKey", PlistValue(123456)},
                        {"NSURLNameKey", PlistValue("Report.pdf")}};
    ASSERT_TRUE(Plist::writeFile(dir / ".Report.pdf.icloud", PlistValue(resources)));
    writeFile(dir / ".Broken.txt.icloud", "\x01\x02 binary junk");
    fs::create_directory(dir / ".Folder.icloud");
    writeFile(dir / "..secret.icloud", "placeholder of a hidden file");
    HiddenFilesPref pref(false);

    auto listing = wrapper->contentsOfDirectoryAtPathSync(record(dir.path(), true));
    ASSERT_TRUE(listing) << listing.error().describe();
    // A folder with a placeholder-like name is an ordinary hidden folder; a placeholder is hidden
    // only when the file it stands for is.
    ASSERT_EQ(test::namesOf(*listing), (std::vector<std::string>{"Broken.txt", "Report.pdf"}));
    auto& report = named(*listing, "Report.pdf");
    EXPECT_TRUE(report.isIcloudPlaceHold);
    EXPECT_EQ(report.fileSizeInBytes, 123456u);
    EXPECT_EQ(report.fileExtension, "pdf");
    EXPECT_EQ(report.pathOrEmpty(), dir / ".Report.pdf.icloud");
    EXPECT_FALSE(report.isDir);
    auto& broken = named(*listing, "Broken.txt");
    EXPECT_TRUE(broken.isIcloudPlaceHold);
    EXPECT_FALSE(broken.fileSizeInBytes.has_value());
    auto forced = makeLocal();
    forced->setForceIncludesHiddenFiles(true);
    auto all = forced->contentsOfDirectoryAtPathSync(record(dir.path(), true));
    ASSERT_TRUE(all) << all.error().describe();
    EXPECT_EQ(test::namesOf(*all),
              (std::vector<std::string>{".Folder.icloud", ".secret", "Broken.txt", "Report.pdf"}));

    // Without a cloud container the contents cannot be fetched, unless the file is there.
    auto r = wrapper->downloadSync(report, dir / "out.pdf", {});
    ASSERT_FALSE(r);
    EXPECT_EQ(r.error().code, 10006);
    EXPECT_EQ(r.error().domain, "Local");
    EXPECT_FALSE(fs::exists(dir / "out.pdf"));
    writeFile(dir / "Report.pdf", "the real file");
    r = wrapper->downloadSync(report, dir / "out.pdf", {});
    ASSERT_TRUE(r) << r.error().describe();
    EXPECT_EQ(readFile(dir / "out.pdf"), "the real file");
    MainQueue::shared().pump();
}

TEST_F(LocalWrapperTest, SymbolicLinksListWithTargetsAndCopyAsLinks) {
    writeFile(dir / "real/inside.txt", "inside");
    writeFile(dir / "file.txt", "file");
    fs::create_directory_symlink("real", dir / "link-dir");
    fs::create_symlink(dir / "file.txt", dir / "link-file");
    fs::create_symlink("nowhere", dir / "dangling");
    wrapper->setForceIncludesHiddenFiles(true);

    auto listing = wrapper->contentsOfDirectoryAtPathSync(record(dir.path(), true));
    ASSERT_TRUE(listing) << listing.error().describe();
    auto& linkDir = named(*listing, "link-dir");
    EXPECT_TRUE(linkDir.isSymbolLink);
    EXPECT_TRUE(linkDir.isDir);
    EXPECT_EQ(linkDir.symbolLinkTarget, dir / "real");
    EXPECT_EQ(linkDir.name(), "real");
    auto& linkFile = named(*listing, "link-file");
    EXPECT_TRUE(linkFile.isSymbolLink);
    EXPECT_FALSE(linkFile.isDir);
    auto& dangling = named(*listing, "dangling");
    EXPECT_TRUE(dangling.isSymbolLink);
    EXPECT_FALSE(dangling.isDir);

    // A link folder lists its target, with the target's own paths.
    auto inside = wrapper->contentsOfDirectoryAtPathSync(linkDir);
    ASSERT_TRUE(inside) << inside.error().describe();
    ASSERT_EQ(test::namesOf(*inside), std::vector<std::string>{"inside.txt"});
    char* real = ::realpath((dir / "real").c_str(), nullptr);
    EXPECT_EQ((*inside)[0].pathOrEmpty(), std::string(real) + "/inside.txt");
    std::free(real);

    // Downloads and uploads copy the link itself, replacing a file at the target.
    writeFile(dir / "copied-link", "an older file");
    auto r = wrapper->downloadSync(linkFile, dir / "copied-link", {});
    ASSERT_TRUE(r) << r.error().describe();
    EXPECT_TRUE(fs::is_symlink(dir / "copied-link"));
    EXPECT_EQ(fs::read_symlink(dir / "copied-link"), dir / "file.txt");
    fs::create_directory(dir / "dest");
    r = wrapper->uploadSync(linkDir, record(dir / "dest", true), {});
    ASSERT_TRUE(r) << r.error().describe();
    EXPECT_TRUE(fs::is_symlink(dir / "dest/link-dir"));
    EXPECT_EQ(fs::read_symlink(dir / "dest/link-dir"), "real");
    EXPECT_EQ(readFile(dir / "file.txt"), "file");
}

TEST_F(LocalWrapperTest, CancelledCopyLeavesNoPartialFile) {
    writeFile(dir / "source.bin", std::string(3 * MiB, 'x'));
    writeFile(dir / "kept.bin", "an older file");

    // (A cancel before the first step is a case of the shared conformance suite.) Cancelled
    // between steps: a pipe as the source decides when the data comes, so the cancel
    // lands after the first 10 MiB step and before the second one ends. The copy may stop
    // before it reads the second step: the writer then meets a closed pipe.
    ASSERT_EQ(::mkfifo((dir / "pipe").c_str(), 0600), 0);
    struct IgnorePipeSignal {
        struct sigaction old {};
        IgnorePipeSignal() {
            struct sigaction ignore {};
            ignore.sa_handler = SIG_IGN;
            ::sigaction(SIGPIPE, &ignore, &old);
        }
        ~IgnorePipeSignal() { ::sigaction(SIGPIPE, &old, nullptr); }
    } ignorePipeSignal;
    auto reports = std::make_shared<Reports>();
    std::atomic<bool> cancelSent{false}, finished{false};
    Status result;
    std::thread writer([&] {
        int fd = ::open((dir / "pipe").c_str(), O_WRONLY | O_CLOEXEC);
        std::string chunk(10 * MiB, 'p');
        auto writeAll = [&] {
            for (std::size_t done = 0; done < chunk.size();) {
                ssize_t n = ::write(fd, chunk.data() + done, chunk.size() - done);
                if (n <= 0) return;
                done += static_cast<std::size_t>(n);
            }
        };
        writeAll();
        while (!cancelSent) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        writeAll();
        ::close(fd);
    });
    std::thread worker([&] {
        result = wrapper->copyFile(dir / "pipe", dir / "from-pipe.bin", collectInto(reports));
        finished = true;
        MainQueue::shared().post([] {});
    });
    MainQueue::shared().runUntil([&] { return !reports->empty(); });
    wrapper->cancelOperation();
    cancelSent = true;
    MainQueue::shared().runUntil([&] { return finished.load(); });
    worker.join();
    writer.join();
    MainQueue::shared().pump();

    ASSERT_FALSE(result);
    EXPECT_EQ(result.error().code, ECANCELED);
    EXPECT_GE(reports->size(), 1u);
    EXPECT_LE(reports->size(), 2u);
    EXPECT_EQ(test::namesIn(dir.path()),
              (std::vector<std::string>{"kept.bin", "pipe", "source.bin"}));
}

TEST_F(LocalWrapperTest, CopyFailuresGiveTheirReasonsAndLeaveNothing) {
    writeFile(dir / "source.txt", "source");
    writeFile(dir / "kept.txt", "older");

    auto r = wrapper->copyFile(dir / "source.txt", dir / "missing/target.txt", {});
    ASSERT_FALSE(r);
    EXPECT_EQ(r.error(),
              (Error{"Local", 10002, "Cannot create file " + (dir / "missing/target.txt")}));

    // Reading this file fails with an I/O error at once.
    r = wrapper->copyFile("/proc/self/mem", dir / "kept.txt", {});
    ASSERT_FALSE(r);
    EXPECT_EQ(r.error(),
              (Error{"Local", 10002,
                     "Cannot complete the operation becasue some data in \"mem\" cannot be read or "
                     "written."}));
    EXPECT_EQ(readFile(dir / "kept.txt"), "older");

    r = wrapper->copyFile(dir / "absent.txt", dir / "target.txt", {});
    ASSERT_FALSE(r);
    EXPECT_EQ(r.error(), (Error{"Local", 10008, "File not found!"}));

    auto down = wrapper->downloadSync(record(dir.path(), true), dir / "folder-copy", {});
    ASSERT_FALSE(down);
    EXPECT_EQ(down.error().code, EISDIR);
    EXPECT_EQ(test::namesIn(dir.path()), (std::vector<std::string>{"kept.txt", "source.txt"}));
}

TEST_F(LocalWrapperTest, MoveRenamesMovesAndNeverReplaces) {
    writeFile(dir / "a.txt", "a");
    writeFile(dir / "b.txt", "b");
    writeFile(dir / "folder/inner.txt", "inner");

    auto r = wrapper->moveSync(record(dir / "a.txt"), record(dir / "b.txt"));
    ASSERT_FALSE(r);
    EXPECT_EQ(r.error().code, EEXIST);
    EXPECT_EQ(readFile(dir / "a.txt"), "a");
    EXPECT_EQ(readFile(dir / "b.txt"), "b");

    r = wrapper->moveSync(record(dir / "folder", true), record(dir / "folder/sub", true));
    ASSERT_FALSE(r) << "a folder moved into itself";
    EXPECT_TRUE(fs::exists(dir / "folder/inner.txt"));

    r = wrapper->moveSync(record(dir / "absent"), record(dir / "c.txt"));
    ASSERT_FALSE(r);
    EXPECT_EQ(r.error(), (Error{"Local", 10008, "File not found!"}));

    // Across file systems a move is a copy and a removal.
    struct stat here {
    }, shm{};
    if (::stat(dir.path().c_str(), &here) == 0 && ::stat("/dev/shm", &shm) == 0 &&
        here.st_dev != shm.st_dev && ::access("/dev/shm", W_OK) == 0) {
        std::string away = "/dev/shm/quillon-move-" + std::to_string(::getpid());
        setMtime(dir / "folder/inner.txt", 1200000000);
        r = wrapper->moveSync(record(dir / "folder", true), record(away, true));
        ASSERT_TRUE(r) << r.error().describe();
        EXPECT_FALSE(fs::exists(dir / "folder"));
        EXPECT_EQ(readFile(away + "/inner.txt"), "inner");
        EXPECT_EQ(test::mtimeOf(away + "/inner.txt"), 1200000000);
        fs::remove_all(away);
    }
}

TEST_F(LocalWrapperTest, RemoveIsPermanentAndNeverFollowsLinks) {
    ScratchDir outside;
    writeFile(outside / "precious.txt", "keep me");
    writeFile(dir / "tree/a/b.txt", "b");
    writeFile(dir / "tree/.hidden", "h");
    fs::create_directory_symlink(outside.path(), dir / "tree/a/link-out");

    auto r = wrapper->removeSync({record(dir / "tree", true)});
    ASSERT_TRUE(r) << r.error().describe();
    EXPECT_FALSE(fs::exists(dir / "tree"));
    EXPECT_EQ(readFile(outside / "precious.txt"), "keep me");
    EXPECT_FALSE(fs::exists(SandboxFileAccess::trashFolderPath()));

    r = wrapper->removeSync({record(dir / "tree", true)});
    ASSERT_FALSE(r);
    EXPECT_EQ(r.error(), (Error{"Local", 10008, "File not found!"}));
}

TEST(SandboxFileAccess, TrashItemMovesIntoTheTrashWithItsInfo) {
    IsolatedHome home;
    ScratchDir dir;
    writeFile(dir / "my file#1.txt", "first");
    std::string trash = SandboxFileAccess::trashFolderPath();
    EXPECT_EQ(trash, home.path() + "/home/.local/share/Trash");

    auto trashed = SandboxFileAccess::trashItem(dir / "my file#1.txt");
    ASSERT_TRUE(trashed) << trashed.error().describe();
    EXPECT_EQ(*trashed, trash + "/files/my file#1.txt");
    EXPECT_FALSE(fs::exists(dir / "my file#1.txt"));
    EXPECT_EQ(readFile(*trashed), "first");
    char* real = ::realpath(dir.path().c_str(), nullptr);
    std::string original = std::string(real) + "/my file#1.txt";
    std::free(real);
    std::string info = readFile(trash + "/info/my file#1.txt.trashinfo");
    std::string encoded = std::regex_replace(std::regex_replace(original, std::regex(" "), "%20"),
                                             std::regex("#"), "%23");
    EXPECT_TRUE(
        std::regex_match(info, std::regex("\\[Trash Info\\]\nPath=" +
                                          std::regex_replace(encoded, std::regex("[.+]"), "\\$&") +
                                          "\nDeletionDate=\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:"
                                          "\\d\\d\n")))
        << info;

    // A second item of the same name gets a name of its own; folders go whole.
    writeFile(dir / "my file#1.txt", "second");
    trashed = SandboxFileAccess::trashItem(dir / "my file#1.txt");
    ASSERT_TRUE(trashed) << trashed.error().describe();
    EXPECT_EQ(*trashed, trash + "/files/my file#1.2.txt");
    EXPECT_EQ(readFile(*trashed), "second");
    EXPECT_TRUE(fs::exists(trash + "/info/my file#1.2.txt.trashinfo"));
    writeFile(dir / "folder/x", "x");
    trashed = SandboxFileAccess::trashItem(dir / "folder");
    ASSERT_TRUE(trashed) << trashed.error().describe();
    EXPECT_EQ(readFile(*trashed + "/x"), "x");

    auto missing = SandboxFileAccess::trashItem(dir / "absent");
    ASSERT_FALSE(missing);
    EXPECT_EQ(missing.error().code, 10008);
}

TEST_F(LocalWrapperTest, CreateFolderFailsWith10014AndSaysWhy) {
    auto r = wrapper->createFolderSync(record(dir / "new", true));
    ASSERT_TRUE(r) << r.error().describe();
    EXPECT_TRUE(fs::is_directory(dir / "new"));

    r = wrapper->createFolderSync(record(dir / "new", true));
    ASSERT_FALSE(r);
    EXPECT_EQ(r.error(), (Error{"Local", 10014,
                                "Cannot create folder \"" + (dir / "new") + "\": File exists."}));
    r = wrapper->createFolderSync(record(dir / "absent/new", true));
    ASSERT_FALSE(r);
    EXPECT_EQ(r.error(),
              (Error{"Local", 10014,
                     "Cannot create folder \"" + (dir / "absent/new") + "\": the folder \"" +
                         (dir / "absent") + "\" does not exist."}));
}

// Without the thumbnail maker installed (media), files get the client's plain refusal.
TEST_F(LocalWrapperTest, ThumbnailsReportHonestErrorsUntilTheyExist) {
    writeFile(dir / "photo.jpg", "jpeg");
    // (A folder's record is the conformance suite's; an unmarked one is still a folder.)
    auto r = wrapper->downloadThumbnailSync(record(dir.path(), false));
    EXPECT_EQ(r.error(), (Error{"Local", 10009, "Folder has no thumbnail."}));
    r = wrapper->downloadThumbnailSync(record(dir / "absent.jpg"));
    EXPECT_EQ(r.error(), (Error{"Local", 10008, "File not found!"}));
    r = wrapper->downloadThumbnailSync(record(dir / "photo.jpg"));
    EXPECT_EQ(r.error(), (Error{"Local", 10009, "It doesn't have a thumbnail."}));
}

TEST_F(LocalWrapperTest, CountsFolderItemsAndBytes) {
    ScratchDir outside;
    HiddenFilesPref pref(false);
    writeFile(dir / "a.txt", std::string(10, 'a'));
    writeFile(dir / ".h", std::string(5, 'h'));
    writeFile(dir / "sub/b.txt", std::string(20, 'b'));
    writeFile(dir / "sub/.hid/c", std::string(7, 'c'));
    writeFile(outside / "big", std::string(1000, 'x'));
    fs::create_directory_symlink(outside.path(), dir / "link");

    auto visible = LocalWrapper::calculateLocalFolderItemsAndSize(dir.path(), false, {});
    EXPECT_EQ(visible.itemCount, 4);  // a.txt, sub, sub/b.txt, link
    EXPECT_EQ(visible.totalBytes, 30);
    auto all = LocalWrapper::calculateLocalFolderItemsAndSize(dir.path(), true, {});
    EXPECT_EQ(all.itemCount, 7);
    EXPECT_EQ(all.totalBytes, 42);
    pref.set(true);
    EXPECT_EQ(LocalWrapper::calculateLocalFolderItemsAndSize(dir.path(), false, {}).itemCount, 7);

    // The continue flag is asked before each folder; stopping keeps the count so far.
    int asked = 0;
    auto top = LocalWrapper::calculateLocalFolderItemsAndSize(dir.path(), true,
                                                              [&] { return asked++ < 1; });
    EXPECT_EQ(top.itemCount, 4);  // a.txt, .h, sub, link
    EXPECT_EQ(top.totalBytes, 15);
    auto none =
        LocalWrapper::calculateLocalFolderItemsAndSize(dir.path(), true, [] { return false; });
    EXPECT_EQ(none.itemCount, 0);
    auto file = LocalWrapper::calculateLocalFolderItemsAndSize(dir / "a.txt", false, {});
    EXPECT_EQ(file.itemCount, 1);
    EXPECT_EQ(file.totalBytes, 10);
}

TEST_F(LocalWrapperTest, ListingFillsRecordsFromTheFileSystem) {
    writeFile(dir / "notes.final.txt", "12345");
    fs::create_directory(dir / "folder");
    setMtime(dir / "notes.final.txt", 1300000000);
    auto folder = record(dir.path(), true);
    folder.serverID = "LOCAL-ID";

    auto listing = wrapper->contentsOfDirectoryAtPathSync(folder);
    ASSERT_TRUE(listing) << listing.error().describe();
    ASSERT_EQ(listing->size(), 2u);
    auto& notes = named(*listing, "notes.final.txt");
    EXPECT_EQ(notes.pathOrEmpty(), dir / "notes.final.txt");
    EXPECT_EQ(notes.localPath, dir / "notes.final.txt");
    EXPECT_EQ(notes.fileExtension, "txt");
    EXPECT_EQ(notes.fileSizeInBytes, 5u);
    EXPECT_EQ(notes.serverID, "LOCAL-ID");
    EXPECT_EQ(notes.protocolType, 0);
    ASSERT_TRUE(notes.parentFolderMeta);
    EXPECT_EQ(notes.parentFolderMeta->pathOrEmpty(), dir.path());
    EXPECT_EQ(notes.timestamp, std::chrono::system_clock::from_time_t(1300000000));
    auto& sub = named(*listing, "folder");
    EXPECT_TRUE(sub.isDir);
    EXPECT_FALSE(sub.fileSizeInBytes.has_value());
    EXPECT_EQ(sub.parentFolderMeta, notes.parentFolderMeta);

    // (A missing folder is the conformance suite's.)
    auto notFolder = wrapper->contentsOfDirectoryAtPathSync(record(dir / "notes.final.txt", true));
    ASSERT_FALSE(notFolder);
    EXPECT_EQ(notFolder.error().code, ENOTDIR);
    EXPECT_EQ(notFolder.error().reason, dir / "notes.final.txt" + ": Not a directory");
}

TEST_F(LocalWrapperTest, IsTheRegisteredClientOfLocalServers) {
    registerBuiltinClients();
    auto info = std::make_shared<ServerInfo>();
    info->protocolType = ProtocolType::Local;
    info->rootFolderPath = "/mnt/data";
    auto wrapper = WrapperProxy::wrapperWithServerInfo(info);
    ASSERT_TRUE(std::dynamic_pointer_cast<LocalWrapper>(wrapper));

    auto root = wrapper->rootFolder();
    EXPECT_EQ(root.pathOrEmpty(), "/mnt/data");
    EXPECT_EQ(root.nameOrEmpty(), "data");
    EXPECT_TRUE(root.isDir);
    EXPECT_EQ(root.serverID, info->serverID);
    EXPECT_EQ(root.protocolType, 0);
    info->rootFolderPath.clear();
    EXPECT_EQ(wrapper->rootFolder().pathOrEmpty(), "/");

    EXPECT_FALSE(wrapper->moveItemsSync({}, root));
    EXPECT_EQ(wrapper->loadStreamableURLForFileSync(record("/tmp/a b#1%.mp3")),
              "file:///tmp/a%20b%231%25.mp3");
    EXPECT_TRUE(wrapper->signInSync());
}

}  // namespace
}  // namespace quillon
