#include "qeltraverse.h"

#include <memory>
#include <unordered_map>
#include <utility>
#include <vector>

#include <qel/base/thrcancellation.h>

#include "qelcaught.h"
#include "qelcontributions_p.h"
#include "qeltraverse_p.h"
#include "xrtti.h"
#include "xsequence.h"

// ---- operations that do nothing unless a visitor overrides them

void qelTraverser::endStructAttribute(xrttistruct*, xrttiattr*, xrcunihandle<xobject>)
{
}

void qelTraverser::endSeqElement(xrttisequence*, int, xrcunihandle<xobject>)
{
}

void qelTraverser::endDictElement(xrttidictionary*, xstring, xrcunihandle<xobject>)
{
}

void qelTraverser::endArrayElement(xrttiarray*, xrchandle<xintsequence>, xrcunihandle<xobject>)
{
}

void qelTraverser::endUnionDicriminator(xrttiunion*, xrttiattr*, xrcunihandle<xobject>)
{
}

void qelTraverser::endUnionValue(xrttiunion*, xrttiattr*, xrcunihandle<xobject>)
{
}

namespace {

// ---- the walk's view of a class

enum class Shape : unsigned char { object, structure, sequence, dictionary, array, selection };

/// A descriptor as each kind that it may be; null for the others.
struct View
{
    explicit View(xrttiobject* type)
        : object(type), structure(xrttistruct::softcast(type)), sequence(xrttisequence::softcast(type)),
          dictionary(xrttidictionary::softcast(type)), array(xrttiarray::softcast(type)),
          selection(xrttiunion::softcast(type))
    {
    }

    xrttiobject* object;
    xrttistruct* structure;
    xrttisequence* sequence;
    xrttidictionary* dictionary;
    xrttiarray* array;
    xrttiunion* selection;

    /// The kind under which an object of the class is reported.
    Shape announced = structure != nullptr    ? Shape::structure
                      : sequence != nullptr   ? Shape::sequence
                      : dictionary != nullptr ? Shape::dictionary
                      : array != nullptr      ? Shape::array
                      : selection != nullptr  ? Shape::selection
                                              : Shape::object;
    /// The class's own contribution to an object: here an array takes precedence over a sequence.
    Shape contents = structure == nullptr && array != nullptr ? Shape::array : announced;
};

/// Calls `use` with the descriptor as the kind under which objects of its class are reported, and with the
/// visitor's pair of operations for that kind.
template<class Use>
auto announce(const View& cls, Use use)
{
    switch (cls.announced) {
    case Shape::structure:
        return use(cls.structure, &qelTraverser::beginStructure, &qelTraverser::endStructure);
    case Shape::sequence:
        return use(cls.sequence, &qelTraverser::beginSequence, &qelTraverser::endSequence);
    case Shape::dictionary:
        return use(cls.dictionary, &qelTraverser::beginDictionary, &qelTraverser::endDictionary);
    case Shape::array:
        return use(cls.array, &qelTraverser::beginArray, &qelTraverser::endArray);
    case Shape::selection:
        return use(cls.selection, &qelTraverser::beginUnion, &qelTraverser::endUnion);
    case Shape::object:
        break;
    }
    return use(cls.object, &qelTraverser::beginObject, &qelTraverser::endObject);
}

/// A class and the contributions that make up its objects.
struct Class
{
    explicit Class(xrttiobject* type) : view(type)
    {
        for (xrttiobject* const part : qelContributions(type))
            contributions.push_back(part == type ? view : View(part));
    }

    View view;
    std::vector<View> contributions;
};

// ---- the walk

/// The position of the walk in an array: one index for each dimension.
struct Odometer
{
    explicit Odometer(int count)
        : entries(xintsequence::create()), at(static_cast<std::size_t>(count < 1 ? 1 : count)),
          last(count - 1)
    {
        for (int i = 0; i < count; ++i)
            entries->append(0);
    }

    xrchandle<xintsequence> entries; ///< passed to the visitor
    std::vector<int> at;
    int last;
    int dimension = 0; ///< the current one
};

/// An object on the path of the walk, and the progress in it.
struct Frame
{
    Frame(xany&& v, xobject* p, const Class& c) : value(std::move(v)), object(p), cls(&c) {}

    void beginContribution()
    {
        position = 0;
        count = -1;
        odometer.reset();
    }

    xany value; // keeps the object alive
    xobject* object;
    const Class* cls;
    std::size_t contribution = 0;
    // Within the contribution:
    int position = 0;    // of the attribute, element or stage
    int count = -1;      // of elements; -1: not known yet
    bool inside = false; // the part at `position` has been entered, and its end is due
    xstring key;         // of a dictionary's element
    xany discriminator;  // of a union
    xrttiattr* member = nullptr;
    std::unique_ptr<Odometer> odometer;
};

/// One call of qelTraverse. Nested objects are kept on its own stack, since they may be nested deeper than
/// the thread's stack allows.
class Walk
{
public:
    Walk(qelTraverser& to, bool printing) : visitor(to), forPrinter(printing), slots(64) {}

    void run(xany&& root)
    {
        enter(std::move(root));
        while (!path.empty())
            if (!advance(path.back()))
                leave();
    }

private:
    xrcunihandle<xobject> shown(xobject* object) const { return forPrinter ? nullptr : object; }
    bool enter(xany&& value);
    bool enterObject(xany&& value);
    void reportEnum(const xany& value);
    void leave();

    bool advance(Frame& frame);
    bool advance(Frame& frame, const View& cls);
    bool advance(Frame& frame, xrttistruct* type);
    bool advance(Frame& frame, xrttisequence* type);
    bool advance(Frame& frame, xrttidictionary* type);
    bool advance(Frame& frame, xrttiarray* type);
    bool advance(Frame& frame, xrttiunion* type);

    template<auto begin, auto end, class Read, class... A>
    bool part(Frame& frame, Read read, const A&... where);
    template<class Read>
    auto guarded(Read read) -> decltype(read());
    xany readAttr(Frame& frame, xrttiattr* attr);

    const Class& classOf(xobject* object);
    std::size_t slotOf(const xobject* object) const;
    void remember(std::size_t slot);
    void forget(const xobject* object);

    qelTraverser& visitor;
    const bool forPrinter; // see qeltraverse_p.h
    std::vector<Frame> path;
    // A hash table of the path: 0, or 1 + the position of a frame. Objects leave it in the reverse of the
    // order in which they entered, so clearing a slot never breaks another object's probe chain.
    std::vector<unsigned> slots;
    std::unordered_map<xrttiobject*, Class> classes;
    const Class* latest = nullptr;
    xrtti* latestEnumRtti = nullptr;
    xrttienum* latestEnum = nullptr;
};

/// Reports a value. True when it is an object that was pushed on the path, to be walked before its container
/// continues; `path` may then have been reallocated.
inline bool Walk::enter(xany&& value)
{
    switch (value.getKind()) {
    case xanyUninit:
        return false;
    case xanyEnum:
        reportEnum(value);
        return false;
    case xanyObject:
        return enterObject(std::move(value));
    default:
        visitor.simpleValue(std::move(value));
        return false;
    }
}

void Walk::reportEnum(const xany& value)
{
    xrtti* const type = value.getRtti();
    if (type != latestEnumRtti) {
        latestEnumRtti = type;
        latestEnum = qelIsObject(type) ? xrttienum::softcast(type) : nullptr;
    }
    if (latestEnum != nullptr)
        visitor.enumValue(latestEnum, value);
    else
        visitor.errorOccured("Invalid enum value", nullptr);
}

[[gnu::noinline]] bool Walk::enterObject(xany&& value)
{
    xobject* const object = value;
    if (!qelIsObject(object))
        return enter(xany(object)); // a marker that C code has stored in place of an object
    const std::size_t slot = slotOf(object);
    if (slots[slot] != 0) {
        visitor.alreadyVisited(object);
        return false;
    }
    if (path.size() == static_cast<std::size_t>(qelTraverseDepth)) {
        visitor.errorOccured("Nesting too deep", nullptr);
        return false;
    }
    const Class& cls = classOf(object);
    const bool entered = announce(
        cls.view, [&](auto* type, auto begin, auto) { return (visitor.*begin)(type, shown(object)); });
    if (!entered)
        return false;
    path.emplace_back(std::move(value), object, cls);
    remember(slot);
    return true;
}

void Walk::leave()
{
    const Frame& frame = path.back();
    announce(frame.cls->view, [&](auto* type, auto, auto end) { (visitor.*end)(type, shown(frame.object)); });
    forget(frame.object);
    path.pop_back();
}

// Each `advance` continues the walk at the frame. True when it entered a nested object: the frame must be
// advanced again after the object has been left, and not be touched before. False at the end.

bool Walk::advance(Frame& frame)
{
    const std::vector<View>& contributions = frame.cls->contributions;
    for (; frame.contribution < contributions.size(); ++frame.contribution) {
        if (advance(frame, contributions[frame.contribution]))
            return true;
        frame.beginContribution();
    }
    return false;
}

bool Walk::advance(Frame& frame, const View& cls)
{
    switch (cls.contents) {
    case Shape::structure:
        return advance(frame, cls.structure);
    case Shape::array:
        return advance(frame, cls.array);
    case Shape::sequence:
        return advance(frame, cls.sequence);
    case Shape::dictionary:
        return advance(frame, cls.dictionary);
    case Shape::selection:
        return advance(frame, cls.selection);
    case Shape::object:
        break;
    }
    return false;
}

bool Walk::advance(Frame& frame, xrttistruct* type)
{
    if (frame.count < 0)
        frame.count = type->getNAttrs();
    for (; frame.position < frame.count; ++frame.position) {
        xrttiattr* const attr = type->getAttr(frame.position);
        if (part<&qelTraverser::beginStructAttribute, &qelTraverser::endStructAttribute>(
                frame, [&] { return readAttr(frame, attr); }, type, attr))
            return true;
    }
    return false;
}

bool Walk::advance(Frame& frame, xrttisequence* type)
{
    if (frame.count < 0)
        frame.count = guarded([&] { return type->getSize(frame.object); });
    const auto read = [&] {
        return guarded([&] { return type->getElemValue(frame.object, frame.position); });
    };
    for (; frame.position < frame.count; ++frame.position)
        if (part<&qelTraverser::beginSeqElement, &qelTraverser::endSeqElement>(frame, read, type,
                                                                               frame.position))
            return true;
    return false;
}

bool Walk::advance(Frame& frame, xrttidictionary* type)
{
    if (frame.count < 0)
        frame.count = guarded([&] { return type->getSize(frame.object); });
    const auto read = [&] {
        return guarded([&] {
            xany value;
            if (!type->getElemValueByIdx(frame.object, frame.position, &value))
                value = "<uninit>";
            return value;
        });
    };
    for (; frame.position < frame.count; ++frame.position) {
        if (!frame.inside) {
            frame.key = "";
            enum { failed, vacant, occupied };
            const auto slot = guarded([&] {
                return type->getElemKeyByIdx(frame.object, frame.position, &frame.key) ? occupied : vacant;
            });
            if (slot == vacant)
                continue;
            if (slot == failed)
                frame.key = "";
        }
        if (part<&qelTraverser::beginDictElement, &qelTraverser::endDictElement>(frame, read, type,
                                                                                 frame.key))
            return true;
    }
    return false;
}

bool Walk::advance(Frame& frame, xrttiarray* type)
{
    if (frame.odometer == nullptr)
        frame.odometer = std::make_unique<Odometer>(type->getNDimentions());
    Odometer& odometer = *frame.odometer;
    const auto read = [&] {
        return guarded([&] { return type->getElemValue(frame.object, odometer.entries); });
    };
    for (;;) {
        int& dimension = odometer.dimension;
        int& at = odometer.at[static_cast<std::size_t>(dimension)];
        if (at >= type->getDimention(dimension)) {
            if (dimension == 0)
                return false;
            at = 0;
            --dimension;
            visitor.endArrayDimension(type, dimension, odometer.entries, shown(frame.object));
            ++odometer.at[static_cast<std::size_t>(dimension)];
            continue;
        }
        odometer.entries->set(dimension, at);
        if (dimension < odometer.last) {
            if (visitor.beginArrayDimension(type, dimension, odometer.entries, shown(frame.object)))
                ++dimension;
            else
                ++at;
            continue;
        }
        if (part<&qelTraverser::beginArrayElement, &qelTraverser::endArrayElement>(frame, read, type,
                                                                                   odometer.entries))
            return true;
        ++at;
    }
}

bool Walk::advance(Frame& frame, xrttiunion* type)
{
    enum Stage { discriminator, member, done };

    if (frame.position == discriminator) {
        xrttiattr* const attr = type->getDiscr();
        if (!frame.inside)
            frame.discriminator = readAttr(frame, attr);
        if (part<&qelTraverser::beginUnionDicriminator, &qelTraverser::endUnionDicriminator>(
                frame, [&] { return frame.discriminator; }, type, attr))
            return true;
        frame.member = guarded([&] { return type->mapLabelToAttr(frame.discriminator, 1); });
        frame.position = member;
    }
    if (frame.position == member) {
        if (part<&qelTraverser::beginUnionValue, &qelTraverser::endUnionValue>(
                frame, [&] { return readAttr(frame, frame.member); }, type, frame.member))
            return true;
        frame.position = done;
    }
    return false;
}

/// Walks one part, which the visitor may skip: begin, the value that `read` returns, end. True when the value
/// is an object that was pushed on the path; called again afterwards, it ends the part.
template<auto begin, auto end, class Read, class... A>
bool Walk::part(Frame& frame, Read read, const A&... where)
{
    if (!frame.inside) {
        if (!(visitor.*begin)(where..., shown(frame.object)))
            return false;
        frame.inside = true;
        if (enter(read()))
            return true;
    }
    frame.inside = false;
    if (!forPrinter)
        (visitor.*end)(where..., shown(frame.object));
    return false;
}

/// Returns the result of `read`. If it throws, reports the exception and returns the default of its type.
template<class Read>
auto Walk::guarded(Read read) -> decltype(read())
{
    try {
        return read();
    } catch (xthrowable* error) {
        const qel::caught owner(error);
        visitor.errorOccured("QEL exception", error);
    } catch (...) {
        thrPassCancellation();
        visitor.errorOccured("Unknown exception", nullptr);
    }
    return {};
}

xany Walk::readAttr(Frame& frame, xrttiattr* attr)
{
    return attr == nullptr ? xany() : guarded([&] { return attr->getValue(frame.object); });
}

// Most objects have the class of the previous one, or one that has been met already.
const Class& Walk::classOf(xobject* object)
{
    xrttiobject* const type = object->getRtti();
    if (latest == nullptr || latest->view.object != type)
        latest = &classes.try_emplace(type, type).first->second;
    return *latest;
}

/// Returns the slot of the object in the path's hash table, or the free slot where it would be inserted.
std::size_t Walk::slotOf(const xobject* object) const
{
    const std::size_t mask = slots.size() - 1;
    std::size_t slot = ((reinterpret_cast<std::uintptr_t>(object) >> 4) * 0x9E3779B97F4A7C15u >> 32) & mask;
    while (slots[slot] != 0 && path[slots[slot] - 1].object != object)
        slot = (slot + 1) & mask;
    return slot;
}

/// Enters the last frame of the path into its free slot.
void Walk::remember(std::size_t slot)
{
    slots[slot] = static_cast<unsigned>(path.size());
    if (path.size() * 2 < slots.size())
        return;
    slots.assign(slots.size() * 4, 0);
    unsigned number = 0;
    for (const Frame& frame : path)
        slots[slotOf(frame.object)] = ++number;
}

void Walk::forget(const xobject* object)
{
    slots[slotOf(object)] = 0;
}

} // namespace

void qelTraverse(xany value, qelTraverser* visitor)
{
    Walk(*visitor, false).run(std::move(value));
}

void qelTraverseForPrinter(xany value, qelTraverser* visitor)
{
    Walk(*visitor, true).run(std::move(value));
}
