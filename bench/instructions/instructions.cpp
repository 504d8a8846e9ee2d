// instructions ROW COUNT: does an operation COUNT times; without arguments, lists the rows. instructions.py counts the
// instructions of an operation from two runs, which do not depend on what else the machine does.
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>

#include <qel/qelexception.h>
#include <qel/qelprint.h>
#include <qel/qeltable.h>
#include <qel/xdictionary.h>
#include <qel/xiolib.h>
#include <qel/xsequence.h>

#include "support/owned.h"

namespace {

/// Keeps the compiler from removing the work that made `value`.
template<class T>
void use(const T& value)
{
    asm volatile("" : : "r"(&value) : "memory");
}

class Thing : public virtual xobject
{
    QEL_OBJECT(Thing);
    QEL_PROPERTY(xstring, Name);
    QEL_PROPERTY(int, Age);
    QEL_PROPERTY(double, Height);

public:
    Thing() : Name("a name"), Age(1), Height(1.5) {}
};
constinit qelClass Thing::rtti = {
    .name = "bench::Thing", .counted = true, .attrs = {QEL_ATTR(Name), QEL_ATTR(Age), QEL_ATTR(Height)}};

const char* const longText =
    "one two three four five six seven eight nine ten eleven twelve thirteen fourteen fifteen";

const std::string& keyOf(int i)
{
    static const auto keys = [] {
        std::array<std::string, 1024> made;
        for (std::size_t k = 0; k < made.size(); ++k)
            made[k] = "key" + std::to_string(k);
        return made;
    }();
    return keys[static_cast<unsigned>(i) % keys.size()];
}

/// Dictionaries of 512 keys. Each hashes with a random seed of its own: over many, the cost of collisions is the same
/// in each run.
class Dictionaries
{
public:
    Dictionaries()
    {
        for (auto& one : all) {
            one = xintdictionary::create();
            for (int i = 0; i < 512; ++i)
                one->set(keyOf(i).c_str(), i);
        }
    }
    xintdictionary* operator[](int i) { return all[static_cast<unsigned>(i) % all.size()].get(); }

private:
    std::array<xrchandle<xintdictionary>, 61> all;
};

template<class Run>
void times(int count, Run run)
{
    for (int i = 0; i < count; ++i)
        run(i);
}

Owned<ioStringStream> inMemory(ioSerializer* form)
{
    Owned<ioStringStream> made(ioStringStream::Create(xnullstr));
    made->setSerializer(form);
    return made;
}

struct Row
{
    const char* name;
    void (*run)(int count);
};

const Row table[] = {
    {"object: make and drop",
     [](int n) { times(n, [](int) { use(xrchandle<Thing>(new (pDefMemMgr) Thing)); }); }},
    {"handle: copy and drop",
     [](int n) {
         const xrchandle<Thing> one(new Thing);
         times(n, [&](int) { use(xrchandle<Thing>(one)); });
     }},
    {"variant: copy a string",
     [](int n) {
         const xany one("a text of some length");
         times(n, [&](int) { use(xany(one)); });
     }},
    {"variant: compare strings",
     [](int n) {
         const xany one("a text of some length"), other("a text of some length");
         times(n, [&](int) { use(one == other); });
     }},
    {"string: make", [](int n) { times(n, [](int) { use(xstring("eleven char")); }); }},
    {"string: substring",
     [](int n) {
         const xstring text(longText);
         times(n, [&](int) { use(text.Substring(10, 60)); });
     }},
    {"string: append a character",
     [](int n) {
         xstring text("");
         times(n, [&](int) { text += 'x'; });
     }},
    {"sequence: append an int",
     [](int n) {
         const xrchandle<xintsequence> ints = xintsequence::create();
         times(n, [&](int i) { ints->append(i); });
     }},
    {"sequence: read an int",
     [](int n) {
         const xrchandle<xintsequence> ints = xintsequence::create();
         ints->append(1);
         times(n, [&](int) { use(ints->get(0)); });
     }},
    {"sequence: append a variant",
     [](int n) {
         const xrchandle<xanysequence> all = xanysequence::create();
         times(n, [&](int i) { all->append(i); });
     }},
    {"dictionary: find",
     [](int n) {
         Dictionaries all;
         times(n, [&](int i) {
             int value = 0;
             use(all[i]->find(keyOf(i % 512).c_str(), &value));
         });
     }},
    {"dictionary: miss",
     [](int n) {
         Dictionaries all;
         times(n, [&](int i) {
             int value = 0;
             use(all[i]->find(keyOf(512 + i % 512).c_str(), &value));
         });
     }},
    {"dictionary: set and remove",
     [](int n) {
         Dictionaries all;
         times(n, [&](int i) {
             all[i]->set(keyOf(512 + i % 512).c_str(), i);
             all[i]->remove(keyOf(512 + i % 512).c_str());
         });
     }},
    {"types: make by name",
     [](int n) {
         qelRegister<Thing>();
         times(n, [](int) { use(xrchandle<xobject>(qelRttiCreate("bench::Thing"))); });
     }},
    {"traverse: print an object",
     [](int n) {
         const xrchandle<Thing> one(new Thing);
         std::ostringstream os;
         times(n, [&](int) {
             os.seekp(0);
             qelPrint(one.get(), os, 2);
         });
     }},
    {"stream: XDR int out",
     [](int n) {
         const auto stream = inMemory(ioSerializer::getXDR());
         times(n, [&](int i) { stream->WriteInt(i); });
     }},
    {"stream: XDR int in",
     [](int n) {
         const auto stream = inMemory(ioSerializer::getXDR());
         times(n, [&](int i) { stream->WriteInt(i); });
         times(n, [&](int) { use(stream->ReadInt()); });
     }},
    {"stream: text real out",
     [](int n) {
         const auto stream = inMemory(ioSerializer::getAscii());
         times(n, [&](int i) { stream->WriteReal(i * 1.37 + 0.001); });
     }},
    {"stream: text int in",
     [](int n) {
         std::string text;
         for (int i = 0; i < n; ++i)
             text += "123456 ";
         const Owned<ioStringStream> stream(ioStringStream::Create(text.c_str()));
         times(n, [&](int) { use(stream->ReadInt()); });
     }},
    {"exception: throw and catch",
     [](int n) {
         times(n, [](int) {
             try {
                 qelhThrowNegativeIndex(-1);
             } catch (xthrowable* thrown) {
                 xrcrelease(thrown);
             }
         });
     }},
};

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3) {
        for (const Row& row : table)
            std::puts(row.name);
        return 0;
    }
    for (const Row& row : table)
        if (std::strcmp(row.name, argv[1]) == 0) {
            row.run(std::atoi(argv[2]));
            return 0;
        }
    std::fprintf(stderr, "instructions: no row \"%s\"\n", argv[1]);
    return 1;
}
