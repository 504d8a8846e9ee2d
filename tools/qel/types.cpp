// qel types, qel print: the types that the library registers, and values of them.
#include <algorithm>
#include <iostream>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <qel/qeljson.h>
#include <qel/qelprint.h>
#include <qel/qelrtti.h>
#include <qel/qeltable.h>
#include <qel/xdictionary.h>
#include <qel/xrtti.h>
#include <qel/xsequence.h>

#include "commands.h"

namespace {

std::string textOf(const xstring& text)
{
    return text == nullptr ? std::string() : text.CastToCString();
}

std::string nameOf(xrtti* type)
{
    return textOf(type->getName());
}

std::vector<xrtti*> allTypes()
{
    std::vector<xrtti*> types;
    qelRttiForEach([](xrtti* type, void* all) { static_cast<std::vector<xrtti*>*>(all)->push_back(type); },
                   &types);
    return types;
}

std::vector<std::string> typeNames(const Typed&)
{
    std::vector<std::string> names;
    for (xrtti* const type : allTypes())
        names.push_back(nameOf(type));
    return names;
}

// "filelib" of "filelib::NodeInfo"; empty for the built-in types.
std::string libraryOf(const std::string& name)
{
    const std::size_t end = name.find("::");
    return end == std::string::npos ? std::string() : name.substr(0, end);
}

const char* kindOf(xrtti* type)
{
    if (qelSoftcast<xrttienum>(type) != nullptr)
        return "enumeration";
    if (qelSoftcast<xrttisequence>(type) != nullptr)
        return "sequence";
    if (qelSoftcast<xrttidictionary>(type) != nullptr)
        return "dictionary";
    if (qelSoftcast<xrttiarray>(type) != nullptr)
        return "array";
    if (qelSoftcast<xrttiunion>(type) != nullptr)
        return "union";
    return qelSoftcast<xrttiobject>(type) != nullptr ? "structure" : "basic";
}

// ---- one type

Json attributeOf(xrttiattr* attribute, xrttiobject* from)
{
    return {{"name", textOf(attribute->getName())},
            {"type", nameOf(attribute->getType())},
            {"optional", attribute->getIsOptional() != 0},
            {"from", nameOf(from)}};
}

// All attributes, those of the parents first.
void addAttributes(xrttistruct* type, Json& attributes)
{
    for (int i = 0; i < type->getNParents(); ++i)
        if (xrttistruct* const parent = qelSoftcast<xrttistruct>(type->getParent(i)))
            addAttributes(parent, attributes);
    for (int i = 0; i < type->getNAttrs(); ++i) {
        const Json attribute = attributeOf(type->getAttr(i), type);
        if (std::find(attributes.begin(), attributes.end(), attribute) == attributes.end())
            attributes.push_back(attribute);
    }
}

void addElements(Json& described, xrtti* type, unsigned char optional)
{
    described["element"] = nameOf(type);
    described["optional"] = optional != 0;
}

void addShape(Json& described, xrttiobject* type)
{
    if (xrttistruct* const structure = qelSoftcast<xrttistruct>(type)) {
        described["attributes"] = Json::array();
        addAttributes(structure, described["attributes"]);
    }
    if (xrttisequence* const sequence = qelSoftcast<xrttisequence>(type))
        addElements(described, sequence->getElemType(), sequence->getIsElemOptional());
    if (xrttidictionary* const dictionary = qelSoftcast<xrttidictionary>(type))
        addElements(described, dictionary->getElemType(), dictionary->getIsElemOptional());
    if (xrttiarray* const array = qelSoftcast<xrttiarray>(type)) {
        addElements(described, array->getElemType(), array->getIsElemOptional());
        for (int i = 0; i < array->getNDimentions(); ++i)
            described["extents"].push_back(array->getDimention(i));
    }
    if (xrttiunion* const choice = qelSoftcast<xrttiunion>(type)) {
        described["discriminator"] = attributeOf(choice->getDiscr(), type);
        described["attributes"] = Json::array();
        for (int i = 0; i < choice->getNLabels(); ++i)
            if (choice->getAttr(i) != nullptr)
                described["attributes"].push_back(attributeOf(choice->getAttr(i), type));
    }
}

Json description(xrtti* type)
{
    Json described = {{"name", nameOf(type)}, {"kind", kindOf(type)}};
    const std::string name = textOf(qelRttiCppName(type));
    described["c++"] = name.empty() ? Json() : Json(name);
    if (xrttienum* const enumeration = qelSoftcast<xrttienum>(type)) {
        described["labels"] = Json::array();
        for (int i = 0; i < enumeration->getNValues(); ++i)
            described["labels"].push_back(textOf(enumeration->mapIntToString(i)));
    }
    if (xrttiobject* const object = qelSoftcast<xrttiobject>(type)) {
        described["counted"] = object->getIsRefCount() != 0;
        described["parents"] = Json::array();
        for (int i = 0; i < object->getNParents(); ++i)
            described["parents"].push_back(nameOf(object->getParent(i)));
        addShape(described, object);
    }
    return described;
}

// The attributes form a table below the other facts.
std::string typeText(const Json& described)
{
    Json facts = described;
    facts.erase("attributes");
    for (const char* const key : {"c++", "parents"})
        if (facts.contains(key) && (facts[key].is_null() || facts[key].empty()))
            facts.erase(key);
    std::string text = AsText(facts);
    if (described.contains("attributes") && !described["attributes"].empty())
        text += '\n' + AsText(described["attributes"]);
    return text;
}

// ---- the tree

// The description of a type in a line of the tree, after its kind.
std::string isOf(const Json& described)
{
    if (described.contains("element"))
        return " of " + described["element"].get<std::string>();
    std::string parents;
    for (const Json& parent : described.value("parents", Json::array()))
        parents += (parents.empty() ? " : " : ", ") + parent.get<std::string>();
    return parents;
}

std::string tree(const Json& types)
{
    std::map<std::string, std::vector<Json>> libraries;
    std::size_t widest = 0;
    for (const Json& type : types) {
        const std::string name = type["name"];
        libraries[libraryOf(name)].push_back(type);
        widest = std::max(widest, name.size() - (libraryOf(name).empty() ? 0 : libraryOf(name).size() + 2));
    }
    std::string text;
    for (const auto& [library, members] : libraries) {
        text += Bold(library.empty() ? "(no library)" : Printable(library)) + '\n';
        for (const Json& type : members) {
            const std::string whole = type["name"];
            std::string name = Printable(whole.substr(library.empty() ? 0 : library.size() + 2));
            name.resize(std::max(widest, name.size()), ' ');
            text += "  " + name + "  " + type["kind"].get<std::string>() + isOf(type) + '\n';
        }
    }
    return text;
}

// ---- who inherits from whom

struct TypeChoices
{
    std::string name;
    bool isTree = false;
    bool isDot = false;
};

using Heirs =
    std::map<std::string, std::set<std::string>>; // by the parent's name; "": of types without a parent

bool isBelow(xrttiobject* type, xrttiobject* ancestor)
{
    if (type == ancestor)
        return true;
    for (int i = 0; i < type->getNParents(); ++i)
        if (isBelow(type->getParent(i), ancestor))
            return true;
    return false;
}

// The classes of a library, those below a class, or all. Parents that are not among them count as none.
Heirs heirsOf(const std::string& name)
{
    xrttiobject* const top =
        name.empty() ? nullptr : qelSoftcast<xrttiobject>(qelRttiGetFromMap(name.c_str()));
    std::vector<xrttiobject*> classes;
    std::set<std::string> names;
    for (xrtti* const type : allTypes())
        if (xrttiobject* const object = qelSoftcast<xrttiobject>(type);
            object != nullptr &&
            (top != nullptr ? isBelow(object, top) : name.empty() || libraryOf(nameOf(type)) == name)) {
            classes.push_back(object);
            names.insert(nameOf(object));
        }
    if (classes.empty())
        Fail(Exit::no, name, "neither a class nor a library; `qel types` prints all");
    Heirs heirs;
    for (xrttiobject* const object : classes) {
        bool hasParent = false;
        for (int i = 0; i < object->getNParents(); ++i)
            if (const std::string parent = nameOf(object->getParent(i)); names.contains(parent)) {
                heirs[parent].insert(nameOf(object));
                hasParent = true;
            }
        if (!hasParent)
            heirs[""].insert(nameOf(object));
    }
    return heirs;
}

// A class with several parents stands below each of them.
std::string branches(const Heirs& heirs, const std::string& parent, const std::string& before)
{
    std::string text;
    const auto found = heirs.find(parent);
    if (found == heirs.end())
        return text;
    for (const std::string& name : found->second) {
        const bool isLast = name == *found->second.rbegin();
        const bool isTop = parent.empty();
        text += before + (isTop ? "" : isLast ? "└─ " : "├─ ") + Printable(name) + '\n';
        text += branches(heirs, name, before + (isTop ? "" : isLast ? "   " : "│  "));
    }
    return text;
}

std::string inDot(const std::string& name)
{
    std::string quoted = "\"";
    for (const char c : Printable(name))
        quoted.append(c == '"' || c == '\\' ? 1 : 0, '\\').append(1, c);
    return quoted + '"';
}

// A graph for the program dot, with an arrow from each class to each of its parents.
std::string graph(const Heirs& heirs)
{
    std::string text = "digraph types {\n  rankdir=RL;\n  node [shape=box];\n";
    for (const auto& [parent, names] : heirs)
        for (const std::string& name : names)
            text += "  " + inDot(name) + (parent.empty() ? "" : " -> " + inDot(parent)) + ";\n";
    return text + "}\n";
}

void showTypes(const TypeChoices& choices)
{
    const std::string& name = choices.name;
    if (choices.isTree || choices.isDot) {
        const Heirs heirs = heirsOf(name);
        return Show(choices.isDot ? graph(heirs) : branches(heirs, "", ""),
                    [](const Json& drawn) { return drawn.get<std::string>(); });
    }
    if (xrtti* const type = name.empty() ? nullptr : qelRttiGetFromMap(name.c_str())) {
        Show(description(type), &typeText);
        return;
    }
    Json types = Json::array();
    for (xrtti* const type : allTypes())
        if (name.empty() || libraryOf(nameOf(type)) == name)
            types.push_back(description(type));
    if (types.empty())
        Fail(Exit::no, name, "neither a type nor a library; `qel types` prints all");
    Show(types, &tree);
}

// ---- print

[[noreturn]] void noValue(const std::string& text, const char* type)
{
    Fail(Exit::usage, text, std::string("no value of the type ") + type);
}

xany basicValue(const std::string& type, const std::string& text)
{
    std::istringstream stream(text);
    if (type == "bool") {
        if (text != "yes" && text != "no")
            noValue(text, "bool (yes or no)");
        return xany(text == "yes");
    }
    if (type == "int") {
        int number = 0;
        if (!(stream >> number) || !stream.eof())
            noValue(text, "int");
        return xany(number);
    }
    if (type == "real") {
        double number = 0;
        if (!(stream >> number) || !stream.eof())
            noValue(text, "real");
        return xany(number);
    }
    return xany(text.c_str());
}

// A value of that type; a sample if `text` is null.
xany valueOf(xrtti* type, const std::string* text)
{
    const std::string name = nameOf(type);
    if (xrttienum* const enumeration = qelSoftcast<xrttienum>(type)) {
        const int value = text == nullptr ? 0 : enumeration->mapStringToInt(text->c_str());
        if (value == xnullint)
            noValue(*text, name.c_str());
        return {value, enumeration};
    }
    static const std::map<std::string, std::string> samples = {
        {"bool", "yes"}, {"int", "42"}, {"real", "3.25"}, {"string", "a text"}, {"any", "any value"}};
    const auto sample = samples.find(name);
    return sample == samples.end() ? xany() : basicValue(name, text == nullptr ? sample->second : *text);
}

template<class V>
V unpacked(const xany& value)
{
    if constexpr (std::is_same_v<V, xany>)
        return value;
    else
        return static_cast<V>(value);
}

// Fills a collection of basic values: a sequence with the texts, a dictionary with NAME=VALUE each.
template<class C, class V>
bool fill(xobject* object, const char* element, const std::vector<std::string>& texts)
{
    C* const collection = qelSoftcast<C>(object);
    if (collection == nullptr)
        return false;
    for (const std::string& text : texts) {
        const std::size_t equals = text.find('=');
        if constexpr (requires { collection->append(V()); })
            collection->append(unpacked<V>(basicValue(element, text)));
        else if (equals == std::string::npos)
            Fail(Exit::usage, text, "not KEY=VALUE");
        else
            collection->set(text.substr(0, equals).c_str(),
                            unpacked<V>(basicValue(element, text.substr(equals + 1))));
    }
    return true;
}

bool isFilled(xobject* object, const std::vector<std::string>& texts)
{
    return fill<xboolsequence, unsigned char>(object, "bool", texts) ||
           fill<xintsequence, int>(object, "int", texts) ||
           fill<xrealsequence, double>(object, "real", texts) ||
           fill<xstringsequence, xstring>(object, "string", texts) ||
           fill<xanysequence, xany>(object, "any", texts) ||
           fill<xbooldictionary, unsigned char>(object, "bool", texts) ||
           fill<xintdictionary, int>(object, "int", texts) ||
           fill<xrealdictionary, double>(object, "real", texts) ||
           fill<xstringdictionary, xstring>(object, "string", texts) ||
           fill<xanydictionary, xany>(object, "any", texts);
}

// Sets the attribute of the class or of a parent that has it.
bool isSet(xrttiobject* type, xobject* object, const std::string& name, const std::string& text)
{
    const qelClass* const table = qelClassOf(type);
    if (table != nullptr)
        for (const qelAttr& attr : table->attrs)
            if (attr.name == name && attr.rebuild != nullptr) {
                attr.rebuild(object, valueOf(attr.type(), &text));
                return true;
            }
    for (int i = 0; i < type->getNParents(); ++i)
        if (isSet(type->getParent(i), object, name, text))
            return true;
    return false;
}

xany objectOf(xrttiobject* type, const std::vector<std::string>& texts)
{
    const std::string name = nameOf(type);
    const qelClass* const table = qelClassOf(type);
    xobject* object = qelRttiCreate(name.c_str());
    if (object == nullptr && table != nullptr && table->rebuild != nullptr)
        object = table->rebuild(nullptr);
    if (object == nullptr)
        Fail(Exit::no, name, "objects of this class cannot be made from values");
    xany held(object); // frees it if it is counted
    if (isFilled(object, texts))
        return held;
    for (const std::string& text : texts) {
        const std::size_t equals = text.find('=');
        if (equals == std::string::npos ||
            !isSet(type, object, text.substr(0, equals), text.substr(equals + 1)))
            Fail(Exit::usage, text, "not ATTRIBUTE=VALUE, of an attribute that can be set");
    }
    return held;
}

void printType(const std::string& name, const std::vector<std::string>& texts, bool asJson)
{
    xrtti* const type = qelRttiGetFromMap(name.c_str());
    if (type == nullptr)
        Fail(Exit::no, name, "no such type; `qel types` prints all");
    xrttiobject* const object = qelSoftcast<xrttiobject>(type);
    if (object == nullptr && texts.size() > 1)
        Fail(Exit::usage, texts[1], "takes one value");
    const xany value =
        object != nullptr ? objectOf(object, texts) : valueOf(type, texts.empty() ? nullptr : texts.data());
    if (asJson)
        qel::json::write(value, std::cout);
    else
        qelPrint(value, std::cout, 2);
    std::cout << '\n';
}

} // namespace

void AddTypeCommands(CLI::App& program)
{
    const auto choices = std::make_shared<TypeChoices>();
    CLI::App& types =
        AddCommand(program, "types", "Print the types that the library registers, or one type in detail",
                   [choices] { showTypes(*choices); });
    types.footer("qel types\tAll types, by their libraries.\n"
                 "qel types filelib\tThose of one library.\n"
                 "qel types filelib::NodeInfo\tOne type: its parents, its attributes, its name in C++.\n"
                 "qel types --tree filelib::XException\tA class and those derived from it.\n"
                 "qel types --dot | dot -Tsvg >types.svg\tAll classes as a picture.\n");
    Offer(*types.add_option("name", choices->name, "The type, or the library")->type_name("NAME"),
          &typeNames);
    CLI::Option* const isTree = types.add_flag(
        "--tree", choices->isTree,
        "Print the classes of the library, or the class and those derived from it, each below its "
        "parents");
    CLI::Option* const isDot =
        types.add_flag("--dot", choices->isDot, "The same as a graph for the program dot")->excludes(isTree);
    OfferJson(
        types,
        "a line for each type: name, kind, c++, counted, parents, attributes (name, type, optional, from), element, "
        "optional, labels");
    types.get_option("--json")->excludes(isTree)->excludes(isDot);

    const auto name = std::make_shared<std::string>();
    const auto values = std::make_shared<std::vector<std::string>>();
    const auto asJson = std::make_shared<bool>();
    CLI::App& print = AddCommand(program, "print", "Print a value of a registered type as the library does",
                                 [name, values, asJson] { printType(*name, *values, *asJson); });
    print.footer("qel print intseq 1 2 3\tA sequence of three numbers.\n"
                 "qel print stringdict a=one b=two\tA dictionary.\n"
                 "qel print qellib::XNull Description=missing\tAn object with an attribute of that value.\n"
                 "qel print --json intseq 1 2 3\tAs the library writes it in JSON.\n");
    Offer(*print.add_option("name", *name, "The type")->type_name("NAME")->required(), &typeNames);
    print
        .add_option("value", *values,
                    "Its contents: values, KEY=VALUE or ATTRIBUTE=VALUE (default: a sample)")
        ->type_name("VALUE");
    print.add_flag("--json", *asJson,
                   "Print JSON, a line in the form of the library: $type, $value, or the attributes");
}
