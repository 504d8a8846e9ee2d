#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "qeljson.h"
#include "qeljsonplan_p.h"
#include "qeljsonsource_p.h"
#include "qels11n.h"

// The reader of JSON texts: qeljsonreader.cpp reads values, qeljsonobjects.cpp fills objects and arrays.

namespace qel::json {

/// The reserved members at the beginning of an object.
struct Opening
{
    Type* type; ///< the declared one until "$type" names another
    bool isTyped = false;
    int id = 0;
};

/// Returns the name of a value of the type in an error.
std::string expectedOf(const Type& type);
std::string nameOf(xrtti* type);

/// An object or array that has been entered, and the progress in it.
struct Frame
{
    enum Part : unsigned char { fields, entries, elements, grid, skippedObject, skippedArray };

    explicit Frame(Part p) : part(p) {}

    Part part;
    bool isWrapped = false; // the array is the "$value" of an object
    bool isFirst = true;
    bool needsKey = true; // false: the first key has been taken already
    int position = 0;     // of the element
    int dimension = 0;
    Plan* plan = nullptr;
    xany value;
    xobject* object = nullptr;
    Field* field = nullptr;    // the one being read
    Field* member = nullptr;   // of a union, once the discriminator is known
    bool hasMember = false;    // has been read
    std::size_t next = 0;      // of the plan's fields, most likely
    std::size_t firstSeen = 0; // of the flags of its fields
    std::string key;
    std::vector<int> indices;
};

/// Reads one text. An object under construction is on the path and not on the call stack, which its depth thus does
/// not exhaust.
class Reader final : private Source::Path
{
public:
    Reader(Source& s, const options& o) : in(s), how(o) { in.setPath(*this); }

    xany run(xrtti* declared)
    {
        Type type(declared);
        read(type, type.kind == Kind::any);
        while (!path.empty())
            advance(path.back());
        if (in.next() != Source::none)
            in.fail("the end of the text");
        if (result.isUninit() && type.kind != Kind::any)
            in.fail(expectedOf(type), "$uninit");
        return std::move(result);
    }

private:
    std::string text() const override;

    void read(Type& declared, bool isOptional);
    void deliver(xany&& value);
    void deliverAt(Frame& frame, xany&& value);

    xany scalar(Type& declared, int first);
    xany number(const Type& declared);
    xany real(const Number& number);
    xany label(const Type& declared);

    void readObject(Type& declared);
    void readSpecial(Opening& opening, std::string_view key, bool& isDone);
    void readReference(const Type& declared);
    void readType(Opening& opening);
    void readValue(Opening& opening);
    void enterObject(Opening& opening, bool isEmpty, std::string_view firstKey);
    void enterArray(Type& declared, bool isWrapped, int id);
    Frame& enter(Frame::Part part);
    Frame& enterNew(Frame::Part part, Plan& plan, int id);
    void leave();
    xany create(Plan& plan);

    void advance(Frame& frame);
    void advanceFields(Frame& frame);
    void advanceEntries(Frame& frame);
    void advanceElements(Frame& frame);
    void advanceGrid(Frame& frame);
    void advanceSkipped(Frame& frame);
    void readField(Frame& frame, std::string_view key);
    void checkComplete(Frame& frame);

    /// Takes what follows a member or element: true when another one does.
    bool another(Frame& frame, char close);
    std::string_view takeKey();
    std::string_view plainKey(std::string_view key);
    void colon()
    {
        if (!in.takeIf(':'))
            in.fail("':'");
    }
    void skip();
    int count();

    Source& in;
    const options& how;
    Type anything{qelGetRtti_any()};
    xany result;
    std::vector<Frame> path;
    std::vector<unsigned char> seen; // a flag for each field of the records on the path
    Plans plans;
    std::unordered_map<int, xany> objects; // by "$id"
    std::unordered_map<std::string, Type> typesByName;
    std::optional<qelS11nContext> context;
};

} // namespace qel::json
