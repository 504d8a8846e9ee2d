#include "btkfilewatch.h"

#include <string>
#include <sys/inotify.h>
#include <unistd.h>

bool btkFileWatch::Begin(btkHandle file)
{
    // The file of an open descriptor, regardless of where its path leads now.
    const std::string opened = "/proc/self/fd/" + std::to_string(file);
    news.Reset(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    if (news && inotify_add_watch(news.Get(), opened.c_str(),
                                  IN_MODIFY | IN_ATTRIB | IN_MOVE_SELF | IN_DELETE_SELF) >= 0)
        return true;
    news.Reset();
    return false;
}

void btkFileWatch::Forget()
{
    // Enough reads to empty the longest queue.
    constexpr int most = 64;
    char taken[4096];
    for (int left = most; left > 0 && read(news.Get(), taken, sizeof taken) > 0; --left) {
    }
}
