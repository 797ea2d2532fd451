#pragma once
// The program's own folders, on the XDG base directories. QUILLON_HOME, when set, puts every
// folder (data, cache, temporary, and the home, Downloads and Desktop folders) under it.

#include <string>

namespace quillon {
class KvMetadata;

namespace PathUtils {
// Data folder ".../KvQuillon" (holds "pref.plist"); created on first use.
std::string getAppDataFolderPath();
// The "Cache" folder under the program's cache location; created on first use.
std::string getAppCacheFolderPath();
// A temporary folder under "KvQuillon"; created on first use.
std::string getAppTempPath();
// Empties the temporary folder.
void cleanAppTempDir();
// The "db" folder that holds "db.sqlite".
std::string getDBFolderPath();
std::string getBackupFolderPath();
std::string getDownloadFolderPath();
std::string getDesktopFolderPath();
std::string getHomeFolderPath();
std::string getApplicationsFolderPath();
// Folder of the shipped resources (pref.plist defaults, ftp_commands.plist, strings).
std::string getResourceFolderPath();
// Fills isSymbolLink and symbolLinkTarget of a local record from the file system.
void updateLocalSymbolLinkInfo(KvMetadata& meta);
// Creates the folder and its parents; true when it exists afterwards.
bool ensureFolder(const std::string& path);
}  // namespace PathUtils
}  // namespace quillon
