// The object model: missing values, strings, collections, handles, and generic code.

#include <iostream>

#include <qel/qelcaught.h>
#include <qel/qelexception.h>
#include <qel/qelprint.h>
#include <qel/xdictionary.h>
#include <qel/xrtti.h>
#include <qel/xsequence.h>

namespace {

// sample values
void values()
{
    xany value; // uninit: never set
    std::cout << value.isUninit();
    value = nullptr; // null: set, to nothing
    std::cout << value.isNull();
    value = 42;
    value = "forty-two";
    std::cout << ' ' << value.getQelTypeName() << ' ' << static_cast<xstring>(value) << std::endl;
}
// end

// sample strings
void strings()
{
    xstring greeting("Grüße");
    const xstring shared = greeting; // shares the text until one of them is written to
    greeting += " aus Köln";
    std::cout << greeting << ", " << shared.GetLength() << " bytes, " << greeting.GetWord(2, " ")
              << std::endl;

    const xstring nothing; // the null string is no text, which is not the empty text
    std::cout << (nothing == nullptr) << (xstring("") == nullptr) << std::endl;
}
// end

// sample collections
xrchandle<xanydictionary> person()
{
    auto made = xanydictionary::make({{"name", "Ada"}, {"age", 36}, {"address", nullptr}});
    made->set("languages", xstringsequence::make({"French", "Italian"}));
    return made; // the dictionary holds the sequence now, and the caller's handle the dictionary
}
// end

// sample types
void whatItIs(xobject* object)
{
    std::cout << object->getQelTypeName() << ": ";
    if (xintsequence* const numbers = xintsequence::softcast(object)) // null when it is something else
        std::cout << "numbers, " << numbers->getarraysize() << " of them" << std::endl;
    else if (object->isKindOf(xanydictionary::getClassRtti()))
        std::cout << "texts with values of any type" << std::endl;
}
// end

// sample failures
void failures(xintsequence& numbers)
{
    try {
        numbers.get(7);
    } catch (xthrowable* thrown) {
        const qel::caught failure(thrown); // owns it
        if (auto* const index = failure.as<qelXInvalidSeqIndex>())
            std::cout << index->getDescription() << ": " << index->getIndex() << std::endl;
    }
}
// end

} // namespace

int main()
{
    values();
    strings();

    const xrchandle<xanydictionary> ada = person();
    // sample print
    qelPrint(ada, std::cout, 2);
    std::cout << std::endl;
    // end

    const auto numbers = xintsequence::make();
    numbers->set(2, 5); // extends it; new elements are zero
    whatItIs(numbers.get());
    whatItIs(ada.get());
    failures(*numbers.get());
}
