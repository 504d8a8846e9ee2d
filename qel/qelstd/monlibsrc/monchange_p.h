#pragma once

#include <memory>
#include <string>

#include <qel/base/btkfilepart.h>
#include <qel/base/btkfilewatch.h>
#include <qel/evtevent.h>

// The changes of a monitor file since it was last read, as its change events see them. The file shares this
// object with its events and reports its own actions to it.
//
// The first reading after an event was polled clears the changes, before it reads bytes; later readings do
// not: the next wait finds changes made between them.
class monChanges
{
public:
    explicit monChanges(std::string filePath) : path(std::move(filePath)) {}

    /// False when the system has no descriptor or watch left; the reason is in errno.
    bool Begin(btkHandle opened);
    /// Watches another opening from now on, which has not been read yet. If that fails, the events stay on,
    /// so that no watcher waits in vain.
    void BeginAnew(btkHandle opened);
    /// Called when the file is closed. The events stay on.
    void End();

    void BeRead();
    /// A reading has found that the path no longer leads to this file.
    void BeGone();

    /// For an event: the descriptor to poll, and the state known without it.
    btkHandle Ask(btkBaseEvent::State& state);

private:
    // The file that the path leads to.
    struct Target
    {
        bool isThere;
        btkFileState state;
    };
    Target Look() const;

    std::string path; // in the operating system's form
    btkFileWatch watch;
    btkHandle file = -1;
    int process = 0;       // the process that made the watch
    bool isAsked = true;   // polled since the last reading
    bool isUnread = false; // on, regardless of the watch
    bool isGone = false;
    Target target = {}; // when the path was found to lead elsewhere
};

/// The event for a program. It shares ownership of the changes and may outlive the file.
class monChangeEvent : public evtEvent
{
public:
    explicit monChangeEvent(std::shared_ptr<monChanges> changes);
};
