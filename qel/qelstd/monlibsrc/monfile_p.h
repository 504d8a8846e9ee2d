#pragma once

#include <memory>
#include <string>

#include <qel/base/btkfilepart.h>
#include <qel/base/btksystem.h>
#include <qel/base/xfilebuf.h>

#include "monchange_p.h"
#include "qelexception.h"
#include "xiolib.h"
#include "xmonlib.h"

// Shared by the file and its parameters.

constexpr int monWordSize = 4; // of a bool, an int and the length of a text
constexpr int monRealSize = 8;

// The location of the file, and the state of its opening.
struct monFile::Place
{
    Place(const std::string& hostPath, bool readOnly) : path(hostPath), isReadOnly(readOnly) {}

    std::string path; // in the operating system's form, absolute
    btkFileState opened;
    bool isReadOnly;
    int process = btkProcessNumber(); // the process that opened it
    // Parameters of the file as it was before Reopen that have not been found again, by their names.
    monParamDict lost;
    std::weak_ptr<monChanges> changes; // while there are events of them
    bool isWatched = false;            // there have been
};

[[noreturn]] inline void monThrowWeird()
{
    qelXNativeException::Throw("Weird parameter type");
}

// Runs `transfer`. After a failure, drops pending data and the error state of the stream, so that the file
// stays usable.
template<class Transfer>
void monFile::Attempt(Transfer transfer)
{
    try {
        transfer();
    } catch (...) {
        if (stream->getIsOpen()) {
            stream->fileBuf->DropPending();
            stream->setIsBad(0);
        }
        throw;
    }
}
