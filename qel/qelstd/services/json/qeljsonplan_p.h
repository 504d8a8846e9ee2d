#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "qeltable.h"
#include "xrtti.h"

// Descriptions of classes for writing and reading, collected once for each call.

namespace qel::json {

enum class Kind : unsigned char { any, boolean, integer, real, string, enumeration, object };

struct Plan;

/// A declared type.
struct Type
{
    explicit Type(xrtti* declared);

    Kind kind;
    xrtti* rtti;
    xrttienum* labels = nullptr; ///< of an enumeration
    xrttiobject* cls = nullptr;  ///< of an object
    bool isRoot = false;         ///< "object", of which every class is a kind
    Plan* plan = nullptr;        ///< of `cls`, once it was needed
};

/// An attribute, or a member of a union.
struct Field
{
    Field(xrttiobject* owner, xrttiattr* attr, const qelAttr* row);

    xrttiobject* owner; ///< the class that declares it
    xrttiattr* attr;
    void (*rebuild)(xobject* owner, const xany& value); ///< null: computed, thus skipped on reading
    Type type;
    bool isOptional;
    std::string name;
    std::string head; ///< the name as written: `"age":`
};

/// The classes of one shape have one form in JSON.
enum class Shape : unsigned char { record, sequence, dictionary, array, mixed };

struct Plan
{
    explicit Plan(xrttiobject* type);
    Plan(const Plan&) = delete;
    Plan& operator=(const Plan&) = delete;

    /// The field of that name at or after `expected`, or before it; null if there is none.
    Field* find(std::string_view fieldName, std::size_t expected);
    Field* memberOf(const xrttiattr* attr);

    xrttiobject* type;
    std::string name;
    Shape shape = Shape::record;
    bool isUntyped; ///< an "anyseq" or "anydict", the classes of arrays and objects without a type

    /// Of a record: attributes, and the discriminator, with the union to which it belongs.
    std::vector<Field> fields;
    xrttiunion* selection = nullptr;
    std::size_t discriminator = noField;
    std::vector<Field> members; ///< that a discriminator may select

    // Of the other shapes.
    xrttisequence* sequence = nullptr;
    xrttidictionary* dictionary = nullptr;
    xrttiarray* array = nullptr;
    Type element;
    std::vector<int> extents;
    const qelShape* elements = nullptr; ///< of the table, if there is one

    const qelClass* table;
    bool isReadable = false; ///< known to be

    static constexpr std::size_t noField = static_cast<std::size_t>(-1);

private:
    void addAttrs(xrttistruct* from);
    void addUnion(xrttiunion* from);
    void addElements(xrttiobject* from);
};

class Plans
{
public:
    Plan& of(xrttiobject* type)
    {
        if (latest == nullptr || latest->type != type) {
            std::unique_ptr<Plan>& plan = plans[type];
            if (plan == nullptr)
                plan = std::make_unique<Plan>(type);
            latest = plan.get();
        }
        return *latest;
    }
    /// The plan of the class as which a value is declared.
    Plan& of(Type& declared)
    {
        if (declared.plan == nullptr)
            declared.plan = &of(declared.cls);
        return *declared.plan;
    }

private:
    std::unordered_map<xrttiobject*, std::unique_ptr<Plan>> plans;
    Plan* latest = nullptr;
};

/// The names by which JSON objects say more than JSON can: each begins with `$`, and a `$` at the start of
/// any other name is doubled.
inline constexpr std::string_view typeKey = "$type";
inline constexpr std::string_view idKey = "$id";
inline constexpr std::string_view refKey = "$ref";
inline constexpr std::string_view valueKey = "$value";
inline constexpr std::string_view uninitKey = "$uninit";

} // namespace qel::json
