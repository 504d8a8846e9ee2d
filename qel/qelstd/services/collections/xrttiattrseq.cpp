#include "xrttiattrseq.h"

#include "qeltable.h"

constinit qelClass xrttiattrseq::rtti = {
    .name = "xrttiattrseq",
    .elements = qelSequenceOf<self>,
    .create = &qelCreateOf<self>,
};
