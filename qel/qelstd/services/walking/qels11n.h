#pragma once

#include <qel/xany.h>
#include <qel/xobject.h>

class xanydictionary;

/// The state of one serialization operation: the root object, and values through which the engine and the
/// objects being rebuilt exchange information. It belongs to one operation on one thread; it shares ownership
/// of its values, which may outlive it.
///
///     qelS11nContext context;
///     context.setUserData("folder", "/srv/data");
///     std::cout << context.getUserData("folder") << '\n';
class QEL_API qelS11nContext
{
public:
    qelS11nContext();
    virtual ~qelS11nContext();
    qelS11nContext(const qelS11nContext&) = delete;
    qelS11nContext& operator=(const qelS11nContext&) = delete;

    /// The root object of the operation; null until one is set.
    void setRootObject(xrcunihandle<xobject> obj);
    xrcunihandle<xobject> getRootObject();

    /// Stores `value` under `name`, replacing any previous value.
    /// @throws qelXInvalidDictKey  `name` is not a text
    void setUserData(const char* name, xany value);
    /// Returns the value stored under `name`, or an uninit value.
    xany getUserData(const char* name);

    /// The same under the empty name.
    void setUserData(xany value);
    xany getUserData();

private:
    xrcunihandle<xobject> rootObject;
    xrchandle<xanydictionary> userDict;
};

/// Base of classes whose instances depend on the context in which they are rebuilt. Not reference countable.
///
///     class Setting : public qelS11nContextSensitive
///     {
///     public:
///         void rebuild(qelS11nContext& context) { folder = context.getUserData("folder"); }
///
///     private:
///         xany folder;
///     };
class QEL_API qelS11nContextSensitive : public virtual xobject
{
    QEL_OBJECT(qelS11nContextSensitive); // "qelS11nContextSensitive"
};
