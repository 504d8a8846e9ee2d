#pragma once

#include <string>

#include "keeper.h"

// Shared by the sources of the keeper.

inline const std::string prefix = "/qelstd/names/";
inline const std::string claimPrefix = prefix + "claims/";
inline constexpr btkTimeval fullPause(2, 0);

inline btkTimeval now()
{
    return nmsTimeOfMachine();
}

// Whether the user must authenticate again: the token has expired, or the users have changed since.
inline bool isOutdated(const EtcdReply& reply)
{
    return reply.code == EtcdReply::unauthenticated || reply.code == EtcdReply::invalid;
}

inline std::uint64_t revisionOf(const Json& body)
{
    return NumberIn(MemberOf(body, "header"), "revision");
}

inline std::string textIn(const Json& object, const char* name)
{
    const Json& text = MemberOf(object, name);
    return text.is_string() ? text.get<std::string>() : std::string();
}
