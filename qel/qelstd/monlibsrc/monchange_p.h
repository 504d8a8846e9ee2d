#pragma once

#include <memory>
#include <string>

#include <qel/base/btkfilepart.h>
#include <qel/base/btkfilewatch.h>
#include <qel/evtevent.h>

// What has happened to a monitor file since it was last read, as the events of its changes see it. The file
// shares it with its events and tells it what it does itself.
//
// News are forgotten by the first reading after an event was asked, before the bytes are read, and not by the
// readings after it: what changes between those is found by the next wait.
class monChanges
{
public:
    explicit monChanges(std::string filePath) : path(std::move(filePath)) {}

    /// False where the system has no descriptor or watch left; the reason is in errno.
    bool Begin(btkHandle opened);
    /// Another opening is watched from now on, which has not been read yet. Where that is not possible the
    /// events stay on, so that nobody waits in vain.
    void BeginAnew(btkHandle opened);
    /// The file is being closed. The events stay on.
    void End();

    void BeRead();
    /// The reading has found that the file is no longer the one of the path.
    void BeGone();

    /// For an event: the descriptor to be looked at, and what is known without it.
    btkHandle Ask(btkBaseEvent::State& state);

private:
    // Which file the path leads to.
    struct Target
    {
        bool isThere;
        btkFileState state;
    };
    Target Look() const;

    std::string path; // of the host
    btkFileWatch watch;
    btkHandle file = -1;
    int process = 0;       // whose watch it is
    bool isAsked = true;   // since the last reading
    bool isUnread = false; // on, whatever the watch says
    bool isGone = false;
    Target target = {}; // when it was found to be gone
};

/// The event for a program. It holds what it looks at, and may outlive the file.
class monChangeEvent : public evtEvent
{
public:
    explicit monChangeEvent(std::shared_ptr<monChanges> changes);
};
