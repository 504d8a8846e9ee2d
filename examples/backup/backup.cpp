// Copies a directory tree and reports the progress: backup FROM TO
//
// A node that cannot be copied is reported and left out. `show` compares the copy with the original.

#include <iostream>

#include <qel/filelib.h>
#include <qel/qelcaught.h>

namespace {

/// Writes a line for each tenth of the work.
class Progress final : public fsProgressHandler
{
public:
    bool Invoke(const char*, double done, double total) override
    {
        for (; done >= total * next / 10 && next <= 10; ++next)
            std::cout << 10 * next << " % of " << static_cast<long long>(total) << " bytes" << std::endl;
        return true; // continue
    }

private:
    int next = 1;
};

/// Reports each node that cannot be copied.
class Failures final : public fsFailureHandler
{
public:
    fsFailureAction OnFailure(const char*, fsXException* failure) override
    {
        std::cerr << "backup: " << qelTextOf(failure) << '\n';
        ++count;
        return fsSkip;
    }

    int count = 0;
};

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3) {
        std::cerr << "usage: backup FROM TO\n";
        return 2;
    }
    Progress progress;
    Failures failures;
    try {
        fsCopy(argv[1], argv[2], fsReplace, fsNewLink, fsRecursive, failures, &progress);
    } catch (xthrowable* thrown) {
        std::cerr << "backup: " << qel::caught(thrown).what() << '\n';
        return 1;
    }
    return failures.count == 0 ? 0 : 1;
}
