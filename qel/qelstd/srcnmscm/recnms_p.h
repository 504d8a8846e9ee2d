#pragma once

#include <string>

#include <qel/base/nmswire.h>

#include "recnms.h"

/// Between a record and its wire form.
struct nmsRecordWire
{
    /// Adds the wire form to `to`; false as nmsRecord::Send, with what that leaves written.
    static bool Encode(const nmsRecord& record, std::string& to);
    /// Replaces the record by what was received.
    static void Take(nmsRecord& record, const nmsFields& received);
};
