#pragma once

// Visitors that record a walk.

#include <gtest/gtest.h>
#include <string>
#include <vector>

#include <qel/qeltraverse.h>
#include <qel/xrtti.h>
#include <qel/xsequence.h>

namespace testtypes {

inline std::string textOf(const xstring& s)
{
    return s == nullptr ? "null" : s.CastToCString();
}

struct Stop
{
};

/// Writes a word or two for each call; what lies in a part stands in its braces, behind which follows "at" and
/// the end's own words if they are not those of the beginning. The part `refused` is not entered; the call
/// `stopAt` throws.
class Recorder : public qelTraverser
{
public:
    std::string lines;
    std::string refused;
    std::string stopAt;
    int values = 0;
    int objects = 0;
    int ends = 0;
    int errors = 0;

    virtual ~Recorder() = default;

    void simpleValue(xany value) override
    {
        ++values;
        switch (value.getKind()) {
        case xanyNull:
            return note("null");
        case xanyInt:
            return note("int " + std::to_string(static_cast<int>(value)));
        case xanyBool:
            return note(static_cast<unsigned char>(value) == 1 ? "bool 1" : "bool 0");
        case xanyReal:
            return note("real " + std::to_string(static_cast<double>(value)));
        case xanyString:
            return note("string " + textOf(value));
        default:
            ADD_FAILURE() << "kind " << value.getKind();
        }
    }
    void enumValue(xrttienum* type, int value) override
    {
        note("enum " + textOf(type->getName()) + " " + std::to_string(value));
    }

    bool beginObject(xrttiobject* t, xrcunihandle<xobject> obj) override { return begin("object", t, obj); }
    void endObject(xrttiobject*, xrcunihandle<xobject> obj) override { end("object", obj); }
    bool beginStructure(xrttistruct* t, xrcunihandle<xobject> obj) override
    {
        return begin("structure", t, obj);
    }
    void endStructure(xrttistruct*, xrcunihandle<xobject> obj) override { end("structure", obj); }
    bool beginSequence(xrttisequence* t, xrcunihandle<xobject> obj) override
    {
        return begin("sequence", t, obj);
    }
    void endSequence(xrttisequence*, xrcunihandle<xobject> obj) override { end("sequence", obj); }
    bool beginDictionary(xrttidictionary* t, xrcunihandle<xobject> obj) override
    {
        return begin("dictionary", t, obj);
    }
    void endDictionary(xrttidictionary*, xrcunihandle<xobject> obj) override { end("dictionary", obj); }
    bool beginArray(xrttiarray* t, xrcunihandle<xobject> obj) override { return begin("array", t, obj); }
    void endArray(xrttiarray*, xrcunihandle<xobject> obj) override { end("array", obj); }
    bool beginUnion(xrttiunion* t, xrcunihandle<xobject> obj) override { return begin("union", t, obj); }
    void endUnion(xrttiunion*, xrcunihandle<xobject> obj) override { end("union", obj); }

    bool beginStructAttribute(xrttistruct* t, xrttiattr* a, xrcunihandle<xobject> obj) override
    {
        return beginPart(nameOf(t, a), obj);
    }
    void endStructAttribute(xrttistruct* t, xrttiattr* a, xrcunihandle<xobject> obj) override
    {
        endPart(nameOf(t, a), obj);
    }
    bool beginSeqElement(xrttisequence*, int index, xrcunihandle<xobject> obj) override
    {
        return beginPart(std::to_string(index), obj);
    }
    void endSeqElement(xrttisequence*, int index, xrcunihandle<xobject> obj) override
    {
        endPart(std::to_string(index), obj);
    }
    bool beginDictElement(xrttidictionary*, xstring key, xrcunihandle<xobject> obj) override
    {
        return beginPart("key " + textOf(key), obj);
    }
    void endDictElement(xrttidictionary*, xstring key, xrcunihandle<xobject> obj) override
    {
        endPart("key " + textOf(key), obj);
    }
    bool beginArrayDimension(xrttiarray*, int dim, xrchandle<xintsequence> index,
                             xrcunihandle<xobject> obj) override
    {
        return beginPart("dimension " + std::to_string(dim) + " " + indices(index), obj);
    }
    void endArrayDimension(xrttiarray*, int dim, xrchandle<xintsequence> index,
                           xrcunihandle<xobject> obj) override
    {
        endPart("dimension " + std::to_string(dim) + " " + indices(index), obj);
    }
    bool beginArrayElement(xrttiarray*, xrchandle<xintsequence> index, xrcunihandle<xobject> obj) override
    {
        return beginPart("element " + indices(index), obj);
    }
    void endArrayElement(xrttiarray*, xrchandle<xintsequence> index, xrcunihandle<xobject> obj) override
    {
        endPart("element " + indices(index), obj);
    }
    bool beginUnionDicriminator(xrttiunion* t, xrttiattr* a, xrcunihandle<xobject> obj) override
    {
        return beginPart("discriminator " + nameOf(t, a), obj);
    }
    void endUnionDicriminator(xrttiunion* t, xrttiattr* a, xrcunihandle<xobject> obj) override
    {
        endPart("discriminator " + nameOf(t, a), obj);
    }
    bool beginUnionValue(xrttiunion* t, xrttiattr* a, xrcunihandle<xobject> obj) override
    {
        return beginPart("member " + nameOf(t, a), obj);
    }
    void endUnionValue(xrttiunion* t, xrttiattr* a, xrcunihandle<xobject> obj) override
    {
        endPart("member " + nameOf(t, a), obj);
    }

    void errorOccured(const char* text, xrcunihandle<xthrowable> error) override
    {
        ++errors;
        note(std::string("error ") + text + (error ? " " + textOf(error->getQelTypeName()) : ""));
    }
    void alreadyVisited(xrcunihandle<xobject> obj) override
    {
        note("already " + textOf(obj->getQelTypeName()));
    }

private:
    static std::string nameOf(xrttiobject* type, xrttiattr* attr)
    {
        return textOf(type->getName()) + "." + (attr == nullptr ? "none" : textOf(attr->getName()));
    }
    std::string indices(const xrchandle<xintsequence>& index)
    {
        // One sequence serves all of an array, in which no other array is nested here.
        if (open.size() != indexDepth)
            indexSeen = index.get(), indexDepth = open.size();
        EXPECT_EQ(index.get(), indexSeen);
        std::string text;
        for (int i = 0; i < index->getarraysize(); ++i)
            text += (i == 0 ? "" : ",") + std::to_string(index->get(i));
        return text;
    }

    void note(const std::string& line)
    {
        lines += (lines.empty() || lines.back() == '{' ? "" : " ") + line;
        if (line == stopAt)
            throw Stop();
    }
    bool beginPart(const std::string& line, const xrcunihandle<xobject>& obj)
    {
        EXPECT_EQ(obj.get(), open.back());
        note(line);
        if (line == refused)
            return false;
        lines += '{';
        parts.push_back(line);
        return true;
    }
    void endPart(const std::string& line, const xrcunihandle<xobject>& obj)
    {
        EXPECT_EQ(obj.get(), open.back());
        const bool isSame = parts.back() == line;
        parts.pop_back();
        lines += isSame ? "}" : "} at " + line;
        if ("end " + line == stopAt)
            throw Stop();
    }
    bool begin(const std::string& shape, xrttiobject* type, const xrcunihandle<xobject>& obj)
    {
        ++objects;
        open.push_back(obj.get());
        const bool entered = beginPart(shape + " " + textOf(type->getName()), obj);
        if (entered)
            parts.back() = shape;
        else
            open.pop_back();
        return entered;
    }
    void end(const std::string& shape, const xrcunihandle<xobject>& obj)
    {
        ++ends;
        endPart(shape, obj);
        open.pop_back();
    }

    std::vector<std::string> parts;
    std::vector<xobject*> open;
    xintsequence* indexSeen = nullptr;
    std::size_t indexDepth = 0;
};

inline std::string record(const xany& value, const char* refused = "")
{
    Recorder recorder;
    recorder.refused = refused;
    qelTraverse(value, &recorder);
    return recorder.lines;
}

} // namespace testtypes
