"""Printers for gdb: the contents of strings, variants, handles, sequences, dictionaries and objects; `*`, `->` and get() of
handles; and the command qel-print.

gdb loads this file with libqelstd.so. All but the command read memory only and call nothing in the program, so they work on
core dumps.
"""
import re

import gdb
import gdb.printing
import gdb.xmethod

NULL_INT, UNINIT_INT = -2**31, -2**31 + 1
NULL_BOOL, UNINIT_BOOL = 128, 129
NULL_REAL, UNINIT_REAL = float.fromhex("0x1.7a2ecc414a04p+418"), float.fromhex("0x1.545d516df5d06p+418")
UNINIT_OBJECT = 22


def base_named(kind, *names):
    """`kind` or the base class of it that has one of the names, or is an instance of a template of that name; None without
    one."""
    kind = kind.strip_typedefs().unqualified()
    if kind.code not in (gdb.TYPE_CODE_STRUCT, gdb.TYPE_CODE_UNION):
        return None
    own = kind.tag or ""
    if own.split("<")[0] in names:
        return kind
    for field in kind.fields():
        found = base_named(field.type, *names) if field.is_base_class else None
        if found is not None:
            return found
    return None


def address(pointer):
    return int(pointer) & (2**64 - 1)


def marker(pointer):
    """The name of a marker pointer; None for a pointer to an object."""
    return {0: "null", UNINIT_OBJECT: "uninit"}.get(address(pointer))


def element(value):
    """An element or a payload in readable form: the two reserved numbers of each type by name, bools as words."""
    kind = value.type.strip_typedefs()
    if kind.code == gdb.TYPE_CODE_INT and kind.sizeof == 4 and kind.is_signed:
        return {NULL_INT: "null", UNINIT_INT: "uninit"}.get(int(value), value)
    if kind.code == gdb.TYPE_CODE_INT and kind.sizeof == 1 and not kind.is_signed:
        return {0: "false", 1: "true", NULL_BOOL: "null", UNINIT_BOOL: "uninit"}.get(int(value), value)
    if kind.code == gdb.TYPE_CODE_FLT and kind.sizeof == 8:
        return {NULL_REAL: "null", UNINIT_REAL: "uninit"}.get(float(value), value)
    return value


def class_name(pointer):
    """The class of an object without debug information, from the symbol of its vtable."""
    try:
        table = int(pointer.cast(gdb.lookup_type("long").pointer()).dereference())
        found = re.match(r"vtable for (.+) \+ \d+ in section", gdb.execute(f"info symbol {table}", to_string=True))
        return found.group(1) if found else "object"
    except gdb.error:
        return "object"


def object_text(pointer):
    """Of a pointer to an object: its class and the number of references."""
    said = marker(pointer)
    if said:
        return said
    try:
        kind = pointer.dynamic_type.target()
        count = int(pointer.cast(kind.pointer()).dereference().cast(gdb.lookup_type("xobject"))["refcount"])
    except gdb.error:
        return f"{class_name(pointer)} at {address(pointer):#x}"
    counted = {-1: "not counted", 0: "no reference yet", 1: "1 reference"}.get(count, f"{count} references")
    return f"{kind.unqualified()} at {address(pointer):#x}, {counted}"


def number_text(value):
    value = element(value)
    return value if isinstance(value, str) else value.format_string()


class String:
    """xstring and __xstring_c: the text in the form that exists; "null" for the null string."""

    def __init__(self, value):
        self.value = value
        self.null = address(value["buffer"]) == 0
        self.multibyte = address(value["mb"]) > 2

    def to_string(self):
        if self.null:
            return "null"
        if self.multibyte:
            return self.value["mb"].lazy_string("utf-8")
        return self.value["wide"].cast(gdb.lookup_type("char16_t").pointer()).lazy_string("utf-16")

    def display_hint(self):
        return None if self.null else "string"


class Variant:
    """xany and __xany_c: the value, or "null" or "uninit"."""

    def __init__(self, value):
        if base_named(value.type, "xany") is not None:
            value = value["value"]
        self.tag = int(value["tag"])
        self.payload = value["u"]

    def to_string(self):
        payload = self.payload
        if self.tag in (0, 1):
            return ("uninit", "null")[self.tag]
        if self.tag in (2, 3, 4):
            return number_text(payload[("intValue", "boolValue", "realValue")[self.tag - 2]])
        if self.tag == 5:
            return payload["stringValue"].format_string()
        if self.tag == 6:
            return self.enumerator(payload["enumValue"])
        if self.tag == 7:
            return object_text(payload["objectValue"])
        return f"not a variant: tag {self.tag}"

    @staticmethod
    def enumerator(value):
        number = int(value["value"])
        try:
            kind = value["type"].cast(value["type"].dynamic_type).dereference()
            label = kind["labels"][number].string() if 0 <= number < int(kind["nValues"]) else "no label"
            return f"{kind['name']['mb'].string()} {label} ({number})"
        except gdb.error:  # the descriptor's class may lack debug information
            return f"value {number} of an enumeration"


class Handle:
    """xrchandle and xrcunihandle: the class of the object, and the pointer to it."""

    def __init__(self, value):
        self.name = base_named(value.type, "xrchandle", "xrcunihandle").tag.split("<")[0]
        self.pointer = value["pointer"]

    def to_string(self):
        return f"{self.name}: {object_text(self.pointer)}"

    def children(self):
        if marker(self.pointer) is None:
            yield "get()", self.pointer.cast(self.pointer.dynamic_type)


class Collection:
    """The base of sequences and dictionaries: elements of one type in a block of memory."""
    TEMPLATES = None
    FIELDS = None  # the block, the elements it has or has room for, and one more; each with its offset

    def __init__(self, value):
        self.name = value.type.strip_typedefs().unqualified().tag
        base = base_named(value.type, *self.TEMPLATES)
        try:
            self.element = base.template_argument(0)
        except RuntimeError:
            self.element = gdb.lookup_type(base.tag.split("<", 1)[1].rpartition(">")[0])
        char = gdb.lookup_type("char").pointer()
        place = value.address.cast(char)

        def read(field, kind):
            name, offset = field
            # Only the library's debug information describes these classes.
            return value[name] if base.fields() else (place + offset).cast(kind.pointer()).dereference()

        word = gdb.lookup_type("unsigned int")
        block, first, second = self.FIELDS
        self.block = read(block, char)
        self.first, self.second = int(read(first, word)), int(read(second, word))


class Sequence(Collection):
    """The sequences: the elements."""
    TEMPLATES = ("xtbsequence", "xtssequence", "xtcsequence")
    FIELDS = (("data", 24), ("used", 32), ("capacity", 36))

    def size(self):
        return self.first // self.element.sizeof

    def to_string(self):
        return f"{self.name} of {self.size()}"

    def children(self):
        elements = self.block.cast(self.element.pointer())
        for i in range(self.size()):
            yield f"[{i}]", element(elements[i])

    def display_hint(self):
        return "array"


class Dictionary(Collection):
    """The dictionaries: the entries in memory order."""
    TEMPLATES = ("xtbdictionary", "xtsdictionary", "xtcdictionary")
    FIELDS = (("table", 24), ("room", 52), ("count", 36))

    def to_string(self):
        return f"{self.name} of {self.second}"

    def children(self):
        pointer = self.block.type
        # An entry is the pointer to its key, then the value, whose alignment is at most the pointer's.
        slot_size = pointer.sizeof + -(-self.element.sizeof // pointer.sizeof) * pointer.sizeof
        for slot in range(self.first):
            place = self.block + slot * slot_size
            key = place.cast(pointer.pointer()).dereference()
            if address(key) != 0 and address(key) % 2 == 0:
                yield f"key {slot}", key.lazy_string("utf-8")
                yield f"value {slot}", element((place + pointer.sizeof).cast(self.element.pointer()).dereference())

    def display_hint(self):
        return "map"


class Object:
    """An object of a class with a table: its attributes that are kept in a field of the same name."""

    def __init__(self, value):
        self.name = "object"
        self.attributes = {}
        self.add(value)

    def add(self, value):
        """Those of a part of the object; each after those of the classes that it derives from."""
        kind = value.type.strip_typedefs().unqualified()
        fields = {field.name: field for field in kind.fields()}
        for field in fields.values():
            if field.is_base_class and base_named(field.type, "xobject") is not None:
                self.add(value[field])
        if "rtti" in fields and fields["rtti"].type.tag == "qelClass":
            table = value[fields["rtti"]]
            rows = table["attrs"]
            names = [rows["_M_array"][i]["name"].string() for i in range(int(rows["_M_len"]))]
            known, self.name = self.name, table["name"].string()
            # Of a class in an unnamed namespace gdb finds the table of its base class: all own fields are shown.
            own = [name for name, field in fields.items() if hasattr(field, "bitpos") and not field.is_base_class]
            self.attributes |= {name: value[fields[name]] for name in (own if self.name == known else names) if name in fields}

    def to_string(self):
        return self.name

    def children(self):
        for name, value in self.attributes.items():
            yield name, element(value)


class Printers(gdb.printing.PrettyPrinter):
    """Finds the printer by the class of a value or one of its base classes, so that subclasses are printed, too."""
    KINDS = [
        ("xstring", ("xstring", "__xstring_c"), String),
        ("xany", ("xany", "__xany_c"), Variant),
        ("handle", ("xrchandle", "xrcunihandle"), Handle),
        ("sequence", Sequence.TEMPLATES, Sequence),
        ("dictionary", Dictionary.TEMPLATES, Dictionary),
    ]

    def __init__(self):
        names = [name for name, _, _ in self.KINDS] + ["object"]
        super().__init__("qelstd", [gdb.printing.SubPrettyPrinter(name) for name in names])

    def __call__(self, value):
        kind = value.type
        if kind.code in (gdb.TYPE_CODE_REF, gdb.TYPE_CODE_RVALUE_REF):
            value = value.referenced_value()
            kind = value.type
        if kind.strip_typedefs().code != gdb.TYPE_CODE_STRUCT:
            return None
        enabled = {printer.name for printer in self.subprinters if printer.enabled}
        for name, bases, printer in self.KINDS:
            if name in enabled and base_named(kind, *bases) is not None:
                return printer(value)
        if "object" in enabled and base_named(kind, "xobject") is not None:
            try:
                found = Object(value)
                return found if found.attributes else None  # without a table, or with values that are computed
            except gdb.error:  # the library may lack debug information
                return None
        return None


class HandleMethod(gdb.xmethod.XMethodWorker):
    """A method of handles, computed from memory: the program need not contain or run it."""

    def __init__(self, name):
        self.name = name

    def get_arg_types(self):
        return None

    def __call__(self, handle):
        pointer = handle["pointer"]
        pointer = pointer if marker(pointer) else pointer.cast(pointer.dynamic_type)
        return pointer.dereference() if self.name == "operator*" else pointer


class HandleMethods(gdb.xmethod.XMethodMatcher):
    """Finds the methods of handles that read."""
    NAMES = ("operator*", "operator->", "get")

    def __init__(self):
        super().__init__("qelstd")
        self.methods = [gdb.xmethod.XMethod(name) for name in self.NAMES]

    def match(self, kind, name):
        if base_named(kind, "xrchandle", "xrcunihandle") is None:
            return None
        return next((HandleMethod(m.name) for m in self.methods if m.enabled and m.name == name), None)


class PrintObject(gdb.Command):
    """qel-print EXPRESSION: print an object and everything that it contains, in the running program.

EXPRESSION is an object, a pointer to one, a handle, or a variant that holds one. The program itself prints it, to its
standard error output."""

    def __init__(self):
        super().__init__("qel-print", gdb.COMMAND_DATA, gdb.COMPLETE_EXPRESSION)

    def invoke(self, argument, from_tty):
        if not argument:
            raise gdb.GdbError("qel-print: which expression?")
        pointer = self.pointer_of(gdb.parse_and_eval(argument))
        said = marker(pointer)
        if said:
            print(said)
            return
        pointer = pointer.cast(pointer.dynamic_type)
        if base_named(pointer.type.target(), "xobject") is None:
            raise gdb.GdbError(f"qel-print: {argument} is no object, or its class has no debug information")
        pointer = pointer.cast(gdb.lookup_type("xobject").pointer())
        # The address of the function, cast: the library may lack debug information.
        gdb.parse_and_eval(f"((void (*)(void*))&qelDebugPrint)((void*){address(pointer):#x})")
        print()

    @staticmethod
    def pointer_of(value):
        kind = value.type.strip_typedefs()
        if kind.code in (gdb.TYPE_CODE_REF, gdb.TYPE_CODE_RVALUE_REF):
            value = value.referenced_value()
            kind = value.type.strip_typedefs()
        if kind.code == gdb.TYPE_CODE_PTR:
            return value
        if base_named(kind, "xrchandle", "xrcunihandle") is not None:
            return value["pointer"]
        if base_named(kind, "xany", "__xany_c") is not None:
            variant = Variant(value)
            if variant.tag != 7:
                raise gdb.GdbError(f"qel-print: no object: {variant.to_string()}")
            return variant.payload["objectValue"]
        if value.address is None:
            raise gdb.GdbError("qel-print: a value that is not in memory")
        return value.address


gdb.printing.register_pretty_printer(gdb.current_objfile(), Printers(), replace=True)
gdb.xmethod.register_xmethod_matcher(gdb.current_objfile(), HandleMethods(), replace=True)
PrintObject()
