#include "core/KvMetadata.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <set>
#include <tuple>

#include "core/ServerInfo.h"
#include "core/ServerInfoService.h"
#include "support/TestEnv.h"

using namespace quillon;
using namespace std::chrono_literals;

namespace {

// A record with every field set to a distinct value.
KvMetadata fullRecord(std::shared_ptr<const KvMetadata> parent) {
    KvMetadata m;
    m.isDir = true;
    m.isSymbolLink = true;
    m.isIcloudPlaceHold = true;
    m.file_update = true;
    m.iCloudDownloadPercent = 42;
    m.protocolType = ProtocolType::WebDAV;
    m.userData = std::string("view state");
    m.timestamp = TimePoint(1700000000s + 123456us);
    m.createTimestamp = TimePoint(1600000000s);
    m.setPath("/Docs/Report");
    m.localPath = "/tmp/cache/Report";
    m.setName("Report");
    m.fileSizeInBytes = 9876543210ULL;
    m.parentFolderMeta = std::move(parent);
    m.iCloudQuery = 7;
    m.etag = "etag-1";
    m.fileExtension = "pages";
    m.identifier = "id-77";
    m.downloadLink = "https://example.invalid/d";
    m.thumbnailLink = "https://example.invalid/t";
    m.file_update_fileid = "fid-3";
    m.serverID = "S-1";
    m.gdocs_editlink = "https://example.invalid/e";
    m.sharedDriveID = "drive-9";
    m.unixPermission = "rwxr-xr-x";
    m.owner = "alice";
    m.group = "staff";
    m.timestampString = "Nov 14 22:13";
    m.streamHeaderCache = std::make_shared<std::vector<std::uint8_t>>(4, 0xAB);
    return m;
}

}  // namespace

TEST(KvMetadata, NamesKeysAndPathsAsTheyAreRead) {
    KvMetadata plain("/home/u/notes.txt");
    EXPECT_EQ(plain.name(), "notes.txt");
    EXPECT_EQ(plain.description(), "Name=notes.txt; PATH=/home/u/notes.txt");
    EXPECT_EQ(KvMetadata().description(), "Name=(null); PATH=(null)");

    // A link's name getter resolves its target while the stored name stays; the archive stores
    // what the getter shows.
    KvMetadata link("/usr/lib/libz.1.dylib");
    link.setName("libz.1.dylib");
    link.symbolLinkTarget = "/usr/lib/libz.dylib";
    EXPECT_EQ(link.name(), "libz.dylib");
    EXPECT_EQ(link.nameIgnoreLinkResolve(), "libz.1.dylib");
    auto back = KvMetadata::unarchive(link.archivedData());
    ASSERT_TRUE(back.has_value());
    EXPECT_EQ(back->nameIgnoreLinkResolve(), "libz.dylib");

    // An iWork document is a folder.
    for (auto [path, isDir, pkg] : {std::tuple{"/Docs/Plan.pages", true, true},
                                    {"/Docs/Plan.pages", false, false},
                                    {"/Docs/Plans", true, false}}) {
        KvMetadata m(path);
        m.isDir = isDir;
        EXPECT_EQ(m.iWorkDocFolder(), pkg) << path << isDir;
    }

    // SFTP paths are normalised on first read and stored back: a later change of isDir no
    // longer affects them.
    struct Case {
        std::int32_t protocol;
        bool isDir;
        const char* path;
        const char* read;
    } cases[] = {
        {ProtocolType::SFTP, true, "sftp://10.0.0.2:22/home/u", "/home/u/"},
        {ProtocolType::SFTP, true, "sftp://10.0.0.2", "/"},
        {ProtocolType::SFTP, false, "sftp://10.0.0.2", "sftp://10.0.0.2"},
        {ProtocolType::SFTP, true, "/home/u", "/home/u"},
        {ProtocolType::FTP, true, "sftp://10.0.0.2:22/home/u", "sftp://10.0.0.2:22/home/u"},
    };
    for (auto& c : cases) {
        KvMetadata m;
        m.protocolType = c.protocol;
        m.isDir = c.isDir;
        m.setPath(c.path);
        EXPECT_EQ(m.path(), c.read) << c.path;
        m.isDir = false;
        EXPECT_EQ(m.path(), c.read) << c.path;
    }

    // Key ids are lower-cased only for Dropbox.
    KvMetadata dropbox("/Docs/A");
    dropbox.protocolType = ProtocolType::Dropbox;
    dropbox.isDir = true;
    dropbox.serverID = "S1";
    EXPECT_EQ(dropbox.keyID(), "s1:1:(null):/docs/a");
    KvMetadata drive("/Docs/A");
    drive.protocolType = ProtocolType::GoogleDrive;
    drive.serverID = "S1";
    drive.identifier = "AbC";
    EXPECT_EQ(drive.keyID(), "S1:0:AbC:/Docs/A");
    KvMetadata sftp;
    sftp.protocolType = ProtocolType::SFTP;
    sftp.isDir = true;
    sftp.setPath("sftp://h:22/Home");
    EXPECT_EQ(sftp.keyID(), "(null):1:(null):/Home/");
}

TEST(KvMetadata, ArchiveKeepsExactlyTheEightFields) {
    auto parent = std::make_shared<const KvMetadata>("/Docs");
    KvMetadata full = fullRecord(parent);

    std::set<std::string> keys;
    for (auto& [k, v] : full.encode()) keys.insert(k);
    EXPECT_EQ(keys, (std::set<std::string>{"timestamp", "isDir", "path", "name", "filesize",
                                           "identifier", "protocolType", "serverID"}));

    auto back = KvMetadata::unarchive(full.archivedData());
    ASSERT_TRUE(back.has_value()) << back.error().describe();
    EXPECT_EQ(back->timestamp, full.timestamp);
    EXPECT_TRUE(back->isDir);
    EXPECT_EQ(back->path(), "/Docs/Report");
    EXPECT_EQ(back->nameIgnoreLinkResolve(), "Report");
    EXPECT_EQ(back->fileSizeInBytes, 9876543210ULL);
    EXPECT_EQ(back->identifier, "id-77");
    EXPECT_EQ(back->protocolType, ProtocolType::WebDAV);
    EXPECT_EQ(back->serverID, "S-1");

    // Absent keys decode as empty fields, false and 0.
    auto sparse = KvMetadata::decode(PlistDict{{"path", "/x"}});
    EXPECT_EQ(sparse.path(), "/x");
    EXPECT_FALSE(sparse.isDir || sparse.protocolType || sparse.timestamp ||
                 sparse.fileSizeInBytes || sparse.name() || sparse.serverID);

    EXPECT_FALSE(KvMetadata::unarchive("not a property list").has_value());
    EXPECT_FALSE(KvMetadata::unarchive(Plist::toXml(PlistValue(PlistArray{}))).has_value());
}

TEST(KvMetadata, CopyKeepsExactlyTheNineteenFields) {
    auto parent = std::make_shared<const KvMetadata>("/Docs");
    KvMetadata full = fullRecord(parent);
    full.symbolLinkTarget = "/Docs/Target.key";

    KvMetadata c = full.copy();
    EXPECT_EQ(c.timestamp, full.timestamp);
    EXPECT_TRUE(c.isDir);
    EXPECT_EQ(c.path(), "/Docs/Report");
    EXPECT_EQ(c.localPath, "/tmp/cache/Report");
    // Copied through the name getter, so the link's resolved name becomes the stored name.
    EXPECT_EQ(c.nameIgnoreLinkResolve(), "Target.key");
    EXPECT_EQ(c.fileSizeInBytes, 9876543210ULL);
    EXPECT_EQ(c.fileExtension, "pages");
    EXPECT_EQ(c.identifier, "id-77");
    EXPECT_EQ(c.protocolType, ProtocolType::WebDAV);
    EXPECT_EQ(c.serverID, "S-1");
    EXPECT_EQ(c.parentFolderMeta.get(), parent.get());
    EXPECT_EQ(c.downloadLink, "https://example.invalid/d");
    EXPECT_TRUE(c.isIcloudPlaceHold);
    EXPECT_EQ(c.createTimestamp, full.createTimestamp);
    EXPECT_EQ(c.etag, "etag-1");
    EXPECT_TRUE(c.isSymbolLink);
    EXPECT_EQ(c.symbolLinkTarget, "/Docs/Target.key");
    EXPECT_EQ(c.gdocs_editlink, "https://example.invalid/e");
    EXPECT_EQ(c.sharedDriveID, "drive-9");

    // The rest is left behind: the copy describes and archives as a record that never had it.
    EXPECT_FALSE(c.userData.has_value() || c.thumbnailLink || c.file_update ||
                 c.file_update_fileid || c.iCloudDownloadPercent || c.iCloudQuery.has_value() ||
                 c.unixPermission || c.owner || c.group || c.timestampString ||
                 c.streamHeaderCache);
}

TEST(KvMetadata, GenerateLocalMetadataBuildsEveryAncestorUpToRoot) {
    test::IsolatedHome home;
    test::ScratchDir dir("meta");
    std::string file = dir / "a/b/c.txt";
    test::writeFile(file, "hello");
    struct stat st {};
    ASSERT_EQ(::stat(file.c_str(), &st), 0);

    auto meta = KvMetadata::generateLocalMetadata(file, false);
    ASSERT_TRUE(meta);
    std::string rootID =
        ServerInfoService::sharedServerInfoService().rootLocalServerInfo().serverID;
    EXPECT_FALSE(rootID.empty());
    EXPECT_EQ(meta->serverID, rootID);
    EXPECT_EQ(meta->protocolType, ProtocolType::Local);
    EXPECT_FALSE(meta->isDir);
    EXPECT_EQ(meta->name(), "c.txt");
    EXPECT_EQ(meta->fileSizeInBytes, 5u);
    ASSERT_TRUE(meta->timestamp);
    EXPECT_EQ(std::chrono::system_clock::to_time_t(*meta->timestamp), st.st_mtime);

    // One record per level, each a folder of the root local server, ending at "/".
    std::vector<std::string> paths;
    const KvMetadata* level = meta->parentFolderMeta.get();
    while (level) {
        EXPECT_TRUE(level->isDir) << level->pathOrEmpty();
        EXPECT_EQ(level->serverID, rootID);
        paths.push_back(level->pathOrEmpty());
        level = level->parentFolderMeta.get();
    }
    std::vector<std::string> expected;
    for (auto p = std::filesystem::path(file).parent_path();; p = p.parent_path()) {
        expected.push_back(p.string());
        if (p == p.root_path()) break;
    }
    EXPECT_EQ(paths, expected);
    EXPECT_EQ(paths.back(), "/");

    auto root = KvMetadata::generateLocalMetadata("/", true);
    ASSERT_TRUE(root);
    EXPECT_FALSE(root->parentFolderMeta);
    EXPECT_EQ(root->name(), "/");

    // A missing item still gets a record: zero size, no date.
    auto missing = KvMetadata::generateLocalMetadata(dir / "nope/x", false);
    ASSERT_TRUE(missing);
    EXPECT_EQ(missing->fileSizeInBytes, 0u);
    EXPECT_FALSE(missing->timestamp);
    EXPECT_EQ(missing->parentFolderMeta->pathOrEmpty(), dir / "nope");

    EXPECT_FALSE(KvMetadata::generateLocalMetadata("", false));
}
