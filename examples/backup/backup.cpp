// Copies a directory tree and reports the progress: backup FROM TO
//
// A node that cannot be copied is reported and left out. `show` compares the copy with the original.

#include <filesystem>
#include <iostream>

#include <qel/filelib.h>
#include <qel/qelcaught.h>

int main(int argc, char** argv)
{
    if (argc != 3) {
        std::cerr << "usage: backup FROM TO\n";
        return 2;
    }
    const std::filesystem::path from = argv[1], to = argv[2];
    int tenths = 0, failed = 0;
    qel::onProgress progress([&](const char*, double done, double total) {
        for (; tenths < 10 && done >= total * (tenths + 1) / 10; ++tenths)
            std::cout << 10 * (tenths + 1) << " % of " << static_cast<long long>(total) << " bytes\n";
    });
    qel::onFailure failures([&](const char*, fsXException& failure) {
        std::cerr << "backup: " << qelTextOf(&failure) << '\n';
        ++failed;
        return fsSkip;
    });
    try {
        fsCopy(from, to, fsReplace, fsNewLink, fsRecursive, failures, &progress);
    } catch (xthrowable* thrown) {
        std::cerr << "backup: " << qel::caught(thrown).what() << '\n';
        return 1;
    }
    return failed == 0 ? 0 : 1;
}
