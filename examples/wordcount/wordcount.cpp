// Counts the words of files: wordcount [-p] FILE...
//
// The words go into a dictionary of the library, the most frequent ones into a sequence, and all of it into a
// class of the program, which -p prints through the traversal engine. Without -p it prints the same lines as
// wordcount_c, which uses the C interface.

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>

#include <qel/qelprint.h>

#include "statistics.h"

int main(int argc, char** argv)
{
    const bool print = argc > 1 && std::strcmp(argv[1], "-p") == 0;
    const int firstFile = print ? 2 : 1;
    if (argc <= firstFile) {
        std::cerr << "usage: wordcount [-p] FILE...\n";
        return 2;
    }
    qelRegister<Word, Statistics>();

    const auto statistics = qel::make<Statistics>();
    for (int i = firstFile; i < argc; ++i) {
        errno = 0;
        std::ifstream file(argv[i], std::ios::binary);
        if (file)
            statistics->Count(file);
        if (!file.is_open() || file.bad()) {
            std::cerr << "wordcount: cannot read " << argv[i] << ": " << std::strerror(errno) << '\n';
            return 1;
        }
    }
    statistics->Finish();
    if (print) {
        qelPrint(statistics, std::cout, 2);
        std::cout << std::endl;
    } else {
        statistics->PrintLines();
    }
}
