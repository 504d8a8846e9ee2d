#include <qel/qelrtti.h>
#include <qel/qeltable.h>
#include <qel/xrtti.h>

#include "support/test.h"

// Compares every type that the library registers, printed from the descriptors, with types.txt. A change
// there is a change of the interface. QEL_WRITE_TYPES=1 in the environment rewrites the file.

namespace {

const char* text(const xstring& s)
{
    return s.CastToCString();
}

xstring nameOf(xrtti* type)
{
    return type->getName();
}

void describeAttr(std::ostream& out, const char* indent, xrttiattr* attr)
{
    out << indent << text(attr->getName()) << " : " << text(nameOf(attr->getType()))
        << (attr->getIsOptional() ? " optional" : "") << '\n';
}

void describeElements(std::ostream& out, const char* what, xrtti* type, unsigned char optional)
{
    out << " " << what << " of " << text(nameOf(type)) << (optional ? " optional" : "");
}

void describe(std::ostream& out, xrtti* type)
{
    out << text(type->getName());
    if (auto* const enumeration = xrttienum::softcast(type)) {
        out << " enum {";
        for (int i = 0; i < enumeration->getNValues(); ++i)
            out << ' ' << text(enumeration->mapIntToString(i));
        out << " }\n";
        return;
    }
    auto* const object = xrttiobject::softcast(type);
    if (object == nullptr) {
        out << " basic\n";
        return;
    }
    if (auto* const sequence = xrttisequence::softcast(type))
        describeElements(out, "sequence", sequence->getElemType(), sequence->getIsElemOptional());
    if (auto* const dictionary = xrttidictionary::softcast(type))
        describeElements(out, "dictionary", dictionary->getElemType(), dictionary->getIsElemOptional());
    out << (object->getIsRefCount() ? " counted" : "");
    for (int i = 0; i < object->getNParents(); ++i)
        out << (i == 0 ? " : " : ", ") << text(nameOf(object->getParent(i)));
    out << '\n';
    if (auto* const structure = xrttistruct::softcast(type))
        for (int i = 0; i < structure->getNAttrs(); ++i)
            describeAttr(out, "    ", structure->getAttr(i));
    if (auto* const choice = xrttiunion::softcast(type)) {
        describeAttr(out, "    discriminator ", choice->getDiscr());
        for (int i = 0; i < choice->getNLabels(); ++i)
            describeAttr(out << "    " << choice->getLabel(i), " ", choice->getAttr(i));
        if (choice->getDefaultAttr() != nullptr)
            describeAttr(out, "    default ", choice->getDefaultAttr());
    }
}

std::string describeAll()
{
    std::ostringstream out;
    qelRttiForEach([](xrtti* type, void* stream) { describe(*static_cast<std::ostream*>(stream), type); },
                   &out);
    return out.str();
}

} // namespace

TEST(Registration, MatchesListOfTypes)
{
    const std::string live = describeAll();
    if (std::getenv("QEL_WRITE_TYPES") != nullptr)
        std::ofstream(TYPES_FILE) << live;
    std::ifstream file(TYPES_FILE);
    std::ostringstream listed;
    listed << file.rdbuf();

    EXPECT_EQ(live, listed.str());
}

TEST(Registration, EveryClassHasOwnDescriptor)
{
    struct Count
    {
        int tables = 0;
    } count;
    qelRttiForEach(
        [](xrtti* type, void* context) {
            auto* const object = xrttiobject::softcast(type);
            const qelClass* const table = object == nullptr ? nullptr : qelClassOf(object);
            if (table == nullptr)
                return;
            ++static_cast<Count*>(context)->tables;
            EXPECT_EQ(table->built, object);
            EXPECT_TRUE(object->getName() == table->name);
        },
        &count);

    EXPECT_GT(count.tables, 30);
}
