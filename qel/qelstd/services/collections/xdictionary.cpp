#include "xdictionary.h"

#include "qeltable.h"

constinit qelClass xbooldictionary::rtti = {
    .name = "booleandict", .counted = true, .elements = qelDictionaryOf<self>, .create = &qelCreateOf<self>};

constinit qelClass xintdictionary::rtti = {
    .name = "intdict", .counted = true, .elements = qelDictionaryOf<self>, .create = &qelCreateOf<self>};

constinit qelClass xrealdictionary::rtti = {
    .name = "realdict", .counted = true, .elements = qelDictionaryOf<self>, .create = &qelCreateOf<self>};

constinit qelClass xstringdictionary::rtti = {
    .name = "stringdict", .counted = true, .elements = qelDictionaryOf<self>, .create = &qelCreateOf<self>};

constinit qelClass xanydictionary::rtti = {
    .name = "anydict", .counted = true, .elements = qelDictionaryOf<self>, .create = &qelCreateOf<self>};

template class xtbdictionary<unsigned char>;
template class xtbdictionary<int>;
template class xtbdictionary<double>;
template class xtbdictionary<xstring>;
template class xtbdictionary<xany>;
template class xtsdictionary<unsigned char>;
template class xtsdictionary<int>;
template class xtsdictionary<double>;
template class xtcdictionary<xstring>;
template class xtcdictionary<xany>;
