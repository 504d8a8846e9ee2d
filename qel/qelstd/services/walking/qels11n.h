#pragma once

#include <qel/xany.h>
#include <qel/xobject.h>

class xanydictionary;

/// What a serialization engine carries through one operation: the root object, and values by which the engine
/// and the objects that are being rebuilt inform each other. It belongs to one operation on one thread; what
/// it holds lives on as long as others hold it.
class QEL_API qelS11nContext
{
public:
    qelS11nContext();
    virtual ~qelS11nContext();
    qelS11nContext(const qelS11nContext&) = delete;
    qelS11nContext& operator=(const qelS11nContext&) = delete;

    /// The root object of the operation; null when none has been set.
    void setRootObject(xrcunihandle<xobject> obj);
    xrcunihandle<xobject> getRootObject();

    /// Keeps `value` under `name`, replacing what was there.
    /// @throws qelXInvalidDictKey  `name` is no text
    void setUserData(const char* name, xany value);
    /// What was kept under `name`, or an uninit value.
    xany getUserData(const char* name);

    /// The same under the empty name.
    void setUserData(xany value);
    xany getUserData();

private:
    xrcunihandle<xobject> rootObject;
    xrchandle<xanydictionary> userDict;
};

/// A class derives from it to say that its instances depend on the context in which they are rebuilt. Not
/// reference countable.
class QEL_API qelS11nContextSensitive : public virtual xobject
{
    QEL_OBJECT(qelS11nContextSensitive); // "qelS11nContextSensitive"
};
