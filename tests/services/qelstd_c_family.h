/* The tests of one element type's functions; included once for each type. Defined then:
 *
 * FAMILY                       xint: the prefix of the functions
 * SEQUENCE_NAME, DICTIONARY_NAME  the registered names
 * RESULT                       the type of a returned element; BLANK, its initial value
 * FIRST, SECOND, THIRD         three different elements
 * IS(result, value)            whether the result is that element; unlocks a string
 * IS_UNINIT(result)            whether it is the marker
 * IS_MISS(result)              whether it is the value of an out argument when the key is missing */

#define GLUE_(a, b) a##b
#define GLUE(a, b) GLUE_(a, b)
#define SEQUENCE GLUE(FAMILY, sequence)
#define DICTIONARY GLUE(FAMILY, dictionary)
#define SEQ(operation) GLUE(SEQUENCE, operation)
#define DICT(operation) GLUE(DICTIONARY, operation)

static void GLUE(FAMILY, SequenceKeepsElements)(void)
{
    SEQUENCE* const s = SEQ(_create)();
    SEQUENCE* const other = SEQ(_create)();
    xobject* const object = (xobject*)s;
    CHECK(!xisexc_c());
    CHECK(isText(xgettypename_c(object), SEQUENCE_NAME));
    CHECK(xgetrtti_c(object) == SEQ(_getclassrtti_c)());
    CHECK(xisobjsameas_c(object, SEQ(_getclassrtti_c)()) == 1);
    CHECK(xisobjkindof_c(object, DICT(_getclassrtti_c)()) == 0);
    CHECK(SEQ(_getarraysize)(s) == 0);

    SEQ(_insert)(s, 0, SECOND);
    SEQ(_insert)(s, 0, FIRST);
    SEQ(_set)(s, 2, FIRST);
    SEQ(_set)(s, 2, THIRD);
    CHECK(SEQ(_getarraysize)(s) == 3);
    CHECK(IS(SEQ(_get)(s, 0), FIRST));
    CHECK(IS(SEQ(_get)(s, 1), SECOND));
    CHECK(IS(SEQ(_get)(s, 2), THIRD));

    SEQ(_insertseq)(other, 0, s);
    SEQ(_insertseq)(other, 1, other); /* FIRST, FIRST, SECOND, THIRD, SECOND, THIRD */
    SEQ(_removerange)(other, 4, 1);
    CHECK(SEQ(_getarraysize)(other) == 3);
    CHECK(IS(SEQ(_get)(other, 1), SECOND));
    CHECK(SEQ(_getarraysize)(s) == 3);
    CHECK(!xisexc_c());

    xrcrelease_c((xobject*)other);
    xdelete_c(object);
}

static void GLUE(FAMILY, SequenceReportsErrors)(void)
{
    SEQUENCE* const s = SEQ(_create)();
    SEQ(_set)(s, 2, FIRST);

    FAILS("XInvalidSeqIndex", CHECK(IS_UNINIT(SEQ(_get)(s, 5))));
    FAILS("XNegativeIndex", CHECK(IS_UNINIT(SEQ(_get)(s, -1))));
    CHECK(SEQ(_getarraysize)(s) == 3);
    CHECK(!xisexc_c()); /* the slot holds the failure of the last call only */

    FAILS("XNegativeIndex", SEQ(_set)(s, -1, FIRST));
    FAILS("XNegativeIndex", SEQ(_insert)(s, -2, FIRST));
    FAILS("XNegativeIndex", SEQ(_insertseq)(s, -3, s));
    FAILS("XNegativeIndex", SEQ(_removerange)(s, 0, -4));
    CHECK(SEQ(_getarraysize)(s) == 3);

    xrcrelease_c((xobject*)s);
}

static void GLUE(FAMILY, SequenceRefusesMarkers)(void)
{
    SEQUENCE* const markers[] = {NULL, (SEQUENCE*)xuninitobj};
    SEQUENCE* const s = SEQ(_create)();
    for (int i = 0; i < 2; ++i) {
        SEQUENCE* const marker = markers[i];
        FAILS("XNotInitialized", CHECK(SEQ(_getarraysize)(marker) == xuninitint));
        FAILS("XNotInitialized", CHECK(IS_UNINIT(SEQ(_get)(marker, 0))));
        FAILS("XNotInitialized", SEQ(_set)(marker, 0, FIRST));
        FAILS("XNotInitialized", SEQ(_insert)(marker, 0, FIRST));
        FAILS("XNotInitialized", SEQ(_insertseq)(marker, 0, s));
        FAILS("XNotInitialized", SEQ(_insertseq)(s, 0, marker));
        FAILS("XNotInitialized", SEQ(_removerange)(marker, 0, 1));
    }
    xrcrelease_c((xobject*)s);
}

static void GLUE(FAMILY, DictionaryKeepsElements)(void)
{
    DICTIONARY* const d = DICT(_create)();
    RESULT value = BLANK;
    CHECK(isText(xgettypename_c((xobject*)d), DICTIONARY_NAME));
    CHECK(xgetrtti_c((xobject*)d) == DICT(_getclassrtti_c)());

    DICT(_set)(d, "one", SECOND);
    DICT(_set)(d, "two", THIRD);
    DICT(_set)(d, "one", FIRST);
    CHECK(DICT(_find)(d, "one", &value) == 1);
    CHECK(IS(value, FIRST));
    CHECK(DICT(_find)(d, "two", NULL) == 1);
    value = BLANK;
    CHECK(DICT(_find)(d, "three", &value) == 0);
    CHECK(IS_MISS(value));
    CHECK(DICT(_find)(d, NULL, &value) == 0);
    CHECK(IS_MISS(value));
    CHECK(!xisexc_c()); /* a missing key is no error */

    DICT(_remove)(d, "two");
    DICT(_remove)(d, "three");
    CHECK(DICT(_find)(d, "two", &value) == 0);
    CHECK(!xisexc_c());

    xrcrelease_c((xobject*)d);
}

static void GLUE(FAMILY, DictionaryIsWalkedBySlots)(void)
{
    DICTIONARY* const d = DICT(_create)();
    int occupied = -1;
    int entries = 0;
    DICT(_set)(d, "the key", FIRST);

    for (int slot = 0; slot < 32; ++slot) {
        __xstring_c key;
        RESULT value = BLANK;
        const unsigned char found = DICT(_getkeybyindex)(d, slot, &key);
        CHECK(DICT(_getbyindex)(d, slot, &value) == found);
        if (found) {
            CHECK(isText(key, "the key"));
            CHECK(IS(value, FIRST));
            occupied = slot;
            ++entries;
        } else {
            CHECK(isText(key, NULL));
            CHECK(IS_MISS(value));
        }
    }
    CHECK(entries == 1 && DICT(_getcount)(d) == 1);

    const int empty = (occupied + 1) % 32;
    RESULT value = BLANK;
    DICT(_setbyindex)(d, occupied, SECOND);
    DICT(_setbyindex)(d, empty, THIRD);
    CHECK(DICT(_getbyindex)(d, occupied, &value) == 1);
    CHECK(IS(value, SECOND));
    DICT(_removebyindex)(d, empty);
    DICT(_removebyindex)(d, occupied);
    CHECK(!xisexc_c());
    CHECK(DICT(_getkeybyindex)(d, occupied, NULL) == 0);
    CHECK(DICT(_getcount)(d) == 0);

    xrcrelease_c((xobject*)d);
}

static void GLUE(FAMILY, DictionaryReportsErrors)(void)
{
    DICTIONARY* const d = DICT(_create)();
    DICTIONARY* const markers[] = {NULL, (DICTIONARY*)xuninitobj};
    __xstring_c key;
    RESULT value = BLANK;
    DICT(_set)(d, "key", FIRST);

    FAILS("XNegativeIndex", CHECK(DICT(_getbyindex)(d, -1, &value) == xuninitbool));
    CHECK(IS_MISS(value));
    FAILS("XNegativeIndex", CHECK(DICT(_getkeybyindex)(d, -1, &key) == xuninitbool));
    CHECK(isText(key, NULL));
    CHECK(DICT(_getbyindex)(d, 32, &value) == 0);
    CHECK(!xisexc_c());
    FAILS("XInvalidDictIndex", DICT(_setbyindex)(d, 32, FIRST));
    FAILS("XInvalidDictIndex", DICT(_removebyindex)(d, 32));
    FAILS("XInvalidDictKey", DICT(_set)(d, NULL, FIRST));

    for (int i = 0; i < 2; ++i) {
        DICTIONARY* const marker = markers[i];
        value = BLANK;
        FAILS("XNotInitialized", CHECK(DICT(_find)(marker, "key", &value) == xuninitbool));
        CHECK(IS_MISS(value));
        FAILS("XNotInitialized", DICT(_set)(marker, "key", FIRST));
        FAILS("XNotInitialized", CHECK(DICT(_getbyindex)(marker, 0, &value) == xuninitbool));
        FAILS("XNotInitialized", CHECK(DICT(_getkeybyindex)(marker, 0, &key) == xuninitbool));
        CHECK(isText(key, NULL));
        FAILS("XNotInitialized", DICT(_setbyindex)(marker, 0, FIRST));
        FAILS("XNotInitialized", DICT(_remove)(marker, "key"));
        FAILS("XNotInitialized", DICT(_removebyindex)(marker, 0));
    }
    xrcrelease_c((xobject*)d);
}

static void GLUE(FAMILY, Family)(void)
{
    family = SEQUENCE_NAME;
    GLUE(FAMILY, SequenceKeepsElements)();
    GLUE(FAMILY, SequenceReportsErrors)();
    GLUE(FAMILY, SequenceRefusesMarkers)();
    GLUE(FAMILY, DictionaryKeepsElements)();
    GLUE(FAMILY, DictionaryIsWalkedBySlots)();
    GLUE(FAMILY, DictionaryReportsErrors)();
    xcleanupexc_c();
    family = "no family";
}

#undef FAMILY
#undef SEQUENCE_NAME
#undef DICTIONARY_NAME
#undef RESULT
#undef FIRST
#undef SECOND
#undef THIRD
#undef BLANK
#undef IS
#undef IS_UNINIT
#undef IS_MISS
#undef GLUE_
#undef GLUE
#undef SEQUENCE
#undef DICTIONARY
#undef SEQ
#undef DICT
