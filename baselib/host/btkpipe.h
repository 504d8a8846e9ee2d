#pragma once

#include <qel/base/btkfd.h>

/// The writing end of an anonymous pipe. Owns its descriptor.
class btkOutputPipe : public btkFd
{
public:
    using btkFd::btkFd;
};

/// The reading end of an anonymous pipe. Owns its descriptor.
class btkInputPipe : public btkFd
{
public:
    using btkFd::btkFd;
};

/// A pipe without a name.
struct BASE_API btkAnonymousPipe
{
    /// Creates a pipe and stores its two ends, closed on exec, in `output` and `input`. False, and both
    /// unchanged, when no descriptors are left.
    static bool Create(btkOutputPipe& output, btkInputPipe& input);
};
