#include "qels11n.h"

#include "qeltable.h"
#include "xdictionary.h"

constinit qelClass qelS11nContextSensitive::rtti = {.name = "qelS11nContextSensitive"};

qelS11nContext::qelS11nContext() : userDict(xanydictionary::create())
{
}

qelS11nContext::~qelS11nContext() = default;

void qelS11nContext::setRootObject(xrcunihandle<xobject> obj)
{
    rootObject = obj;
}

xrcunihandle<xobject> qelS11nContext::getRootObject()
{
    return rootObject;
}

void qelS11nContext::setUserData(const char* name, xany value)
{
    userDict->set(name, value);
}

xany qelS11nContext::getUserData(const char* name)
{
    xany value;
    userDict->find(name, &value);
    return value;
}

void qelS11nContext::setUserData(xany value)
{
    setUserData("", value);
}

xany qelS11nContext::getUserData()
{
    return getUserData("");
}
