// Runs the store's full clean-up (_srDeleteAllTempFiles) once over the working directory of $HOME
// and prints the bytes it removed and how long the walk took, in seconds.
#include <QCoreApplication>
#include <chrono>
#include <cstdio>
#include <cstring>

#include "filestore/LMFileManagerExtensions.h"

int main(int argc, char** argv) {
    if (argc > 1 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0)) {
        std::puts(
            "usage: HOME=<prepared home> filestore_age_walk_bench\n"
            "Deletes everything in $HOME/Library/Application Support/com.vantor.lumarod through "
            "the\n"
            "store's age walk and prints: bytes-removed seconds");
        return 0;
    }
    QCoreApplication app(argc, argv);
    auto fm = NSFileManager::defaultManager();
    const auto start = std::chrono::steady_clock::now();
    const int64_t bytes = LMExtensions::_srDeleteAllTempFiles(*fm);
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
    std::printf("%lld %.3f\n", static_cast<long long>(bytes), took.count());
    return 0;
}
