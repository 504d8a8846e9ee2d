#pragma once

#include <string>

#include <qel/base/nmswire.h>

#include "recnms.h"

/// Converts a record to and from its wire form.
struct nmsRecordWire
{
    /// Adds the wire form to `to`; false as nmsRecord::Send, with the same bytes written.
    static bool Encode(const nmsRecord& record, std::string& to);
    /// Replaces the record by the received fields.
    static void Take(nmsRecord& record, const nmsFields& received);
};
