#pragma once
// Classifies a file by its name: extension first, then an extension table that stands in for
// the platform's uniform type identifiers.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quillon {
class KvMetadata;

namespace FileTypeUtils {

// The identifier preferred for the name's extension ("public.jpeg", "public.plain-text", ...),
// or absent for an unknown extension.
std::optional<std::string> getUTIString(std::string_view name);
// The type identifiers the program opens, its own declared type last.
std::vector<std::string> supportedUTIs();
// Whether the type of the name's extension conforms to `uti` (through the table's parents).
bool conformsTo(std::string_view name, std::string_view uti);

bool isSupportedFile(std::string_view name);
bool isSupportedArchiveFile(std::string_view name);
bool isImage(std::string_view name);
bool isMovie(std::string_view name);
bool isFFMpegSupportAudio(std::string_view name);
bool isFFMpegSupportMovie(std::string_view name);
bool isMacSupportedMovie(std::string_view name);
bool isMacSupportedAudio(std::string_view name);
bool isAudio(std::string_view name);
bool isAudioPlaylist(std::string_view name);
bool isHTML(std::string_view name);
bool isText(std::string_view name);
bool isTextForWebView(std::string_view name);
bool isEpub(std::string_view name);
bool isPDF(std::string_view name);
bool isWord(std::string_view name);
bool isExcel(std::string_view name);
bool isPPT(std::string_view name);
bool isKeynote(std::string_view name);
bool isNumbers(std::string_view name);
bool isPages(std::string_view name);
bool isIWork(std::string_view name);
bool isDocument(std::string_view name);
bool isExternalSubtitle(std::string_view name);
bool hasArtworkPossible(std::string_view name);
// A local folder the desktop treats as one document (an iWork package or an application bundle).
bool isFilePackage(const KvMetadata& meta);
bool isQuickLookSupportFile(std::string_view name);
// "pdf", "photo", "video", "music", "txt", "word", "excel", "ppt", "keynote", "numbers", "pages",
// "zip", "html", "epub", tested in that order; "unknown" otherwise.
std::string iconNameForFileName(std::string_view name);
// A human-readable kind for listings ("Folder", "PDF document", "Image", ...).
std::string kindForFileName(std::string_view name, bool isDir);

}  // namespace FileTypeUtils
}  // namespace quillon
