// Archives against the usual tools, side by side in one run, each pair with its speed ratio (the
// other tool's time divided by quillon's; 1.0 means as fast). Each pair is one benchmark whose
// sides take turns; the time shown is quillon's:
//   - extracting a zip of many small files:      `quillon extract` against `unzip`   (>= 1.0)
//   - extracting a tar.gz of many small files:   `quillon extract` against `tar xzf` (>= 1.0)
//   - the same two for a few large files                                            (>= 1.0)
//   - zipping the small tree and the large files: `quillon zip` against `zip -r`, both at the
//     default deflate level 6                                                        (>= 0.9)
// The data compresses about as well as ordinary documents do: text-like runs between
// incompressible blocks.
//
//   ARCHIVEBENCH_SMALL       number of small files (default 10000)
//   ARCHIVEBENCH_BIG_MB      size of each large file in MiB (default 200)
//   ARCHIVEBENCH_BIG_FILES   number of large files (default 3)
//   ARCHIVEBENCH_DIR         where the data goes (default: the temporary folder; /dev/shm takes
//                            the disk out of the comparison)
//   BENCH_VERBOSE            set: show the timed programs' error messages
//   QUILLON_BINARY           the quillon program to time (default: the one built with this)

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "BenchKit.h"

namespace {

namespace fs = std::filesystem;
using namespace quillon::bench;

// `size` bytes of which about half compress well (numbers and words) and half not at all.
std::vector<char> documentLike(std::size_t size, unsigned variant) {
    auto noise = randomBlock(size, variant);
    std::string text;
    for (unsigned i = 0; text.size() < size; ++i)
        text += "line " + std::to_string((i * 2654435761u + variant) % 100000) +
                " of the report, " + (i % 3 ? "figures follow\n" : "see the table\n");
    std::vector<char> out(size);
    for (std::size_t at = 0; at < size; at += 4096) {
        std::size_t n = std::min<std::size_t>(4096, size - at);
        const char* from = (at / 4096) % 2 ? noise.data() + at : text.data() + at;
        std::copy(from, from + n, out.begin() + static_cast<long>(at));
    }
    return out;
}

bool makeSmallTree(const std::string& root, long count) {
    auto block = documentLike(64 << 10, 2);
    for (long i = 0; i < count; ++i) {
        std::string folder = root + "/d" + std::to_string(i / 100);
        if (i % 100 == 0) fs::create_directories(folder);
        std::size_t size = 1024 + static_cast<std::size_t>(i * 7919 % 7168);
        std::size_t from = static_cast<std::size_t>(i * 131 % (32 << 10));
        if (!writeBytes(folder + "/f" + std::to_string(i) + ".txt", block.data() + from, size))
            return false;
    }
    return true;
}

bool makeBigFiles(const std::string& root, long count, long mib) {
    fs::create_directories(root);
    for (long f = 0; f < count; ++f) {
        auto block = documentLike(8 << 20, static_cast<unsigned>(f + 7));
        std::string path = root + "/big" + std::to_string(f) + ".dat";
        std::FILE* out = std::fopen(path.c_str(), "wb");
        if (!out) return false;
        for (long i = 0; i < mib; i += 8) {
            block[0] = static_cast<char>(i);
            std::fwrite(block.data(), 1, std::min<long>(8, mib - i) << 20, out);
        }
        if (std::fclose(out) != 0) return false;
    }
    return true;
}

std::function<void()> removeBoth(const std::string& a, const std::string& b) {
    return [a, b] {
        std::error_code ec;
        fs::remove(a, ec);
        fs::remove(b, ec);
    };
}

std::function<bool()> command(std::vector<std::string> argv) {
    return [argv = std::move(argv)] { return runQuiet(argv) == 0; };
}

// A command run in `dir` (zip and tar name entries after the folder they run in).
std::function<bool()> commandIn(const std::string& dir, const std::string& script) {
    return command({"sh", "-c", "cd '" + dir + "' && " + script});
}

std::int64_t treeBytes(const std::string& root) {
    std::int64_t n = 0;
    std::error_code ec;
    for (auto& e : fs::recursive_directory_iterator(root, ec))
        if (e.is_regular_file(ec)) n += static_cast<std::int64_t>(e.file_size(ec));
    return n;
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    long smallCount = envNumber("ARCHIVEBENCH_SMALL", 10000);
    long bigMiB = envNumber("ARCHIVEBENCH_BIG_MB", 200);
    long bigCount = envNumber("ARCHIVEBENCH_BIG_FILES", 3);
    const char* where = std::getenv("ARCHIVEBENCH_DIR");
    const char* bin = std::getenv("QUILLON_BINARY");
    std::string quillon = bin && *bin ? bin : QUILLON_BINARY;

    std::string base = ((where && *where ? fs::path(where) : fs::temp_directory_path()) /
                        "quillon-archivebench-XXXXXX")
                           .string();
    if (!::mkdtemp(base.data())) {
        std::perror("mkdtemp");
        return 1;
    }
    ::setenv("QUILLON_HOME", (base + "/home").c_str(), 1);
    std::printf("making %ld small files and %ld files of %ld MiB in %s\n", smallCount, bigCount,
                bigMiB, base.c_str());
    if (!makeSmallTree(base + "/small", smallCount) ||
        !makeBigFiles(base + "/big", bigCount, bigMiB) ||
        runQuiet({"sh", "-c",
                  "cd '" + base +
                      "' && zip -qr small.zip small && zip -qr big.zip big && "
                      "tar czf small.tar.gz small && tar czf big.tar.gz big"}) != 0) {
        std::perror("making the data");
        fs::remove_all(base);
        return 1;
    }
    // A first run sets up quillon's home, so the timed runs measure the archive work only.
    fs::create_directories(base + "/warm");
    runQuiet({quillon, "extract", base + "/small.zip", "--to", base + "/warm"});

    std::string q = base + "/q", o = base + "/o";
    for (std::string set : {"small", "big"}) {
        std::int64_t bytes = treeBytes(base + "/" + set);
        registerPair("extract " + set + " zip", "unzip", bytes,
                     command({quillon, "extract", base + "/" + set + ".zip", "--to", q}),
                     command({"unzip", "-q", base + "/" + set + ".zip", "-d", o}), emptyBoth(q, o));
        registerPair("extract " + set + " tar.gz", "tar xzf", bytes,
                     command({quillon, "extract", base + "/" + set + ".tar.gz", "--to", q}),
                     command({"tar", "xzf", base + "/" + set + ".tar.gz", "-C", o}),
                     emptyBoth(q, o));
        registerPair("zip " + set, "zip -r", bytes,
                     command({quillon, "zip", base + "/" + set, "-o", base + "/q.zip"}),
                     commandIn(base, "zip -qr -6 o.zip " + set),
                     removeBoth(base + "/q.zip", base + "/o.zip"));
    }
    benchmark::RunSpecifiedBenchmarks();
    for (std::string set : {"small", "big"}) {
        printPairRatio("extract " + set + " zip", "unzip", "target >= 1.0");
        printPairRatio("extract " + set + " tar.gz", "tar xzf", "target >= 1.0");
        printPairRatio("zip " + set, "zip -r", "target >= 0.9");
    }
    std::error_code ec;
    fs::remove_all(base, ec);
    benchmark::Shutdown();
    return 0;
}
