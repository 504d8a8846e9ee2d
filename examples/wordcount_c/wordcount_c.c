/* Counts the words of files through the C interface: wordcount_c FILE...
 *
 * A word is a run of ASCII letters, apostrophes and bytes of other characters, in small letters and without
 * the apostrophes around it. The program prints the numbers of words and of distinct words, and the 20 most
 * frequent ones. */

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <qel/qelstd_c.h>

#define TOP_COUNT 20

typedef struct Counter
{
    xintdictionary* counts;
    int words;
    int distinct;
} Counter;

/* One of the most frequent words; holds a reference to its text. */
typedef struct Entry
{
    __xstring_c word;
    int count;
} Entry;

/* A growing text. */
typedef struct Run
{
    char* bytes;
    size_t length;
    size_t capacity;
} Run;

/* A failed call leaves an exception behind: this program cannot recover from any. */
static void checkCall(void)
{
    if (xisexc_c()) {
        xthrowable* const exception = xextractexc_c();
        fprintf(stderr, "wordcount_c: %s\n", xstrgetmb_c(xgettypename_c((xobject*)exception)));
        exit(1);
    }
}

static void addToRun(Run* run, char byte)
{
    if (run->length == run->capacity) {
        run->capacity = run->capacity == 0 ? 64 : 2 * run->capacity;
        run->bytes = realloc(run->bytes, run->capacity);
        if (run->bytes == NULL) {
            fputs("wordcount_c: no memory\n", stderr);
            exit(1);
        }
    }
    run->bytes[run->length++] = byte;
}

/* Counts the word in the run, if there is one, and empties the run. */
static void endRun(Counter* counter, Run* run)
{
    size_t begin = 0;
    size_t end = run->length;
    while (begin < end && run->bytes[begin] == '\'')
        ++begin;
    while (begin < end && run->bytes[end - 1] == '\'')
        --end;
    if (begin < end) {
        int count = 0;
        run->length = end;
        addToRun(run, '\0');
        if (!xintdictionary_find(counter->counts, run->bytes + begin, &count))
            ++counter->distinct;
        xintdictionary_set(counter->counts, run->bytes + begin, count + 1);
        checkCall();
        ++counter->words;
    }
    run->length = 0;
}

/* Returns 0, or the number of the error that prevented reading the file to its end. */
static int countFile(Counter* counter, const char* path)
{
    Run run = {NULL, 0, 0};
    int c;
    int error;
    FILE* const file = fopen(path, "rb");
    if (file == NULL)
        return errno;
    while ((c = getc(file)) != EOF) {
        if (c >= 'A' && c <= 'Z')
            c += 'a' - 'A';
        if ((c >= 'a' && c <= 'z') || c == '\'' || c >= 0x80)
            addToRun(&run, (char)c);
        else
            endRun(counter, &run);
    }
    endRun(counter, &run);
    error = ferror(file) ? errno : 0;
    free(run.bytes);
    fclose(file);
    return error;
}

/* More frequent words come first, and words of the same count in the order of their bytes. */
static int comesBefore(const Entry* a, const Entry* b)
{
    if (a->count != b->count)
        return a->count > b->count;
    return strcmp(xstrgetmb_c(a->word), xstrgetmb_c(b->word)) < 0;
}

/* Inserts `entry` into the `n` sorted entries in `top`, which has room for one more; returns the new number.
 */
static int insert(Entry* top, int n, Entry entry)
{
    int at = n;
    for (; at > 0 && comesBefore(&entry, &top[at - 1]); --at)
        top[at] = top[at - 1];
    top[at] = entry;
    if (n < TOP_COUNT)
        return n + 1;
    xstrunlock_c(top[n].word);
    return n;
}

static void printTop(const Counter* counter)
{
    Entry top[TOP_COUNT + 1];
    int n = 0;
    int seen = 0;
    for (int slot = 0; seen < counter->distinct; ++slot) {
        Entry entry;
        if (!xintdictionary_getkeybyindex(counter->counts, slot, &entry.word))
            continue; /* an empty slot: the null string, which owns nothing */
        xintdictionary_getbyindex(counter->counts, slot, &entry.count);
        n = insert(top, n, entry);
        ++seen;
    }
    printf("words %d distinct %d\n", counter->words, counter->distinct);
    for (int i = 0; i < n; ++i) {
        printf("%8d %s\n", top[i].count, xstrgetmb_c(top[i].word));
        xstrunlock_c(top[i].word);
    }
}

int main(int argc, char** argv)
{
    Counter counter = {NULL, 0, 0};
    int error = 0;
    if (argc < 2) {
        fputs("usage: wordcount_c FILE...\n", stderr);
        return 2;
    }
    counter.counts = xintdictionary_create();
    checkCall();
    for (int i = 1; i < argc && error == 0; ++i) {
        error = countFile(&counter, argv[i]);
        if (error != 0)
            fprintf(stderr, "wordcount_c: cannot read %s: %s\n", argv[i], strerror(error));
    }
    if (error == 0)
        printTop(&counter);
    xrcrelease_c((xobject*)counter.counts);
    return error == 0 ? 0 : 1;
}
