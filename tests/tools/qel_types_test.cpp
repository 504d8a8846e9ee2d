#include <gtest/gtest.h>
#include <string>

#include "support/qelprogram.h"

namespace {

bool Holds(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

} // namespace

TEST(QelTypes, ListsTypesByLibrary)
{
    const std::string all = Qel("types").output;
    EXPECT_TRUE(Holds(all, "\nfilelib\n  NodeInfo ")) << all;
    EXPECT_TRUE(Holds(all, "\n  XDiskFull                     structure : filelib::XException\n")) << all;
    EXPECT_TRUE(Holds(all, "\n  intseq                        sequence of int\n")) << all;
    const std::string files = Qel("types filelib").output;
    EXPECT_TRUE(Holds(files, "NodeInfo"));
    EXPECT_FALSE(Holds(files, "intseq"));
    EXPECT_EQ(Qel("types nolib").status, 1);
}

TEST(QelTypes, DescribesOneType)
{
    EXPECT_EQ(Qel("types filelib::XDiskFull").output,
              "name     filelib::XDiskFull\n"
              "kind     structure\n"
              "c++      fsXDiskFull\n"
              "counted  yes\n"
              "parents  filelib::XException\n"
              "\n"
              "NAME         TYPE           OPTIONAL  FROM\n"
              "Description  string         yes       qellib::XException\n"
              "Func         qellib::XFunc  no        qellib::XExternFunc\n"
              "Path         string         yes       filelib::XException\n");
    EXPECT_EQ(Qel("types filelib::OpMode").output, "name    filelib::OpMode\n"
                                                   "kind    enumeration\n"
                                                   "c++     fsOpMode\n"
                                                   "labels  fsRecursive, fsSimple\n");
    EXPECT_TRUE(Holds(Qel("types --json intseq").output, "\"element\": \"int\""));
    EXPECT_TRUE(Holds(Qel("types stringdict").output, "dictionary\n"));
    EXPECT_EQ(Qel("types real").output, "name  real\nkind  basic\n");
}

TEST(QelPrint, PrintsValuesOfMostTypes)
{
    EXPECT_EQ(Qel("print intseq 1 2").output, "intseq\n[\n  0 : 1\n  1 : 2\n]\n");
    EXPECT_EQ(Qel("print stringdict 'a=x y'").output, "stringdict\n{\n  \"a\" : \"x y\"\n}\n");
    EXPECT_EQ(Qel("print qellib::XNull Description=gone").output,
              "qellib::XNull\n{\n  Description : \"gone\"\n}\n");
    EXPECT_EQ(Qel("print filelib::OpMode fsSimple").output, "fsSimple\n");
    EXPECT_EQ(Qel("print real 0.5").output, "0.5\n");
    EXPECT_EQ(Qel("print string").status, 0);
    const struct
    {
        const char* arguments;
        const char* shown;
    } values[] = {{"bool no", "false"},
                  {"int", "42"},
                  {"any 'a b'", "a b"},
                  {"filelib::OpMode", "fsRecursive"},
                  {"booleanseq yes no", "[\n  0 : true\n  1 : false\n]"},
                  {"realseq -1.5", "0 : -1.5"},
                  {"anyseq x", "0 : \"x\""},
                  {"intdict b=2 a=1", "\"a\" : 1\n"},
                  {"booleandict a=yes", "\"a\" : true\n"},
                  {"realdict a=1e3", "\"a\" : 1000\n"},
                  {"anydict a==b", "\"a\" : \"=b\""},
                  {"qellib::XInvalidSeqIndex Index=3 Description=far", "Index : 3\n"}};
    for (const auto& [arguments, shown] : values)
        EXPECT_TRUE(Holds(Qel(std::string("print ") + arguments).output, shown))
            << arguments << ": " << Qel(std::string("print ") + arguments).output;
    EXPECT_TRUE(Holds(Qel("print filelib::NodeInfo").output, "Size : 0\n"));
}

TEST(QelPrint, ReportsWhyThereIsNoValue)
{
    EXPECT_EQ(Qel("print nothing").output, "qel print: nothing: no such type\n");
    EXPECT_EQ(Qel("print nothing").status, 1);
    EXPECT_EQ(Qel("print int 1x").status, 2);
    EXPECT_EQ(Qel("print intseq x").status, 2);
    EXPECT_EQ(Qel("print intdict x").status, 2);
    EXPECT_EQ(Qel("print filelib::OpMode fsNone").status, 2);
    EXPECT_EQ(Qel("print qellib::XNull Nothing=1").status, 2);
    EXPECT_EQ(Qel("print qellib::XNull Description").status, 2);
    for (const char* const refused : {"bool maybe", "bool", "real 1,5", "real ''", "int 2147483648",
                                      "booleanseq yes 1", "realdict a=b", "int 1 2"})
        EXPECT_EQ(Qel(std::string("print ") + refused).status, std::string_view(refused) == "bool" ? 0 : 2)
            << refused;
    EXPECT_EQ(Qel("print xrtti").status, 1);
}
