"""The shared library, the C functions that this package uses, and the code that calls them."""
import ctypes
import os
import pathlib
import threading

from . import errors

SONAME = "libqelstd.so.0"


class CString(ctypes.Structure):
    """`__xstring_c`: its holder owns a reference to the text."""
    _fields_ = [("buffer", ctypes.c_void_p), ("mb", ctypes.c_void_p), ("wide", ctypes.c_void_p)]


def _path():
    """QELSTD_LIBRARY; or the library of the prefix in which this package is installed; or the one that the system finds."""
    named = os.environ.get("QELSTD_LIBRARY")
    if named:
        return named
    here = pathlib.Path(__file__).resolve()
    for folder in here.parents:
        if folder.name == "lib":
            found = [folder / SONAME, *folder.glob(f"*/{SONAME}")]
            return next((str(path) for path in found if path.exists()), SONAME)
    return SONAME


# PyDLL holds the GIL: the calls are short, and their arguments are often shared with other threads.
_library = ctypes.PyDLL(_path())

_object = ctypes.c_void_p
_text = ctypes.c_char_p


def function(name, result, *arguments):
    """The C function of that name."""
    found = getattr(_library, name)
    found.restype = result
    found.argtypes = arguments
    return found


attach = function("xrcattach_c", None, _object)
delete = function("xdelete_c", None, _object)
is_countable = function("xisrcobj_c", ctypes.c_ubyte, _object)
is_kind_of = function("xisobjkindof_c", ctypes.c_ubyte, _object, _object)
print_object = function("xprint_c", None, _object)
_write_json = function("xwritejson_c", CString, _object, ctypes.c_int)
_read_json = function("xreadjson_c", _object, _text)
_type_name = function("xgettypename_c", CString, _object)
_is_exception = function("xisexc_c", ctypes.c_ubyte)
_extract_exception = function("xextractexc_c", _object)
_use_own_exception = function("xthreadexc_c", None, ctypes.c_ubyte)
_exception_text = function("xgetexctext_c", CString, _object)
_text_of = function("xstrgetmb_c", ctypes.c_void_p, CString)
_unlock = function("xstrunlock_c", None, CString)

class _Thread(threading.local):
    """Gives each thread its own current exception, instead of the process's, at the thread's first access."""

    def __init__(self):
        _use_own_exception(1)

    def prepare(self):
        """Makes that access."""


_thread = _Thread()


def call(called, *arguments):
    """Returns the function's result. Raises the exception that it left current."""
    _thread.prepare()
    result = called(*arguments)
    if not _is_exception():
        return result
    raise _error(_extract_exception())


def _error(exception):
    """The Python exception for one of the library's, whose reference is released."""
    try:
        return errors.make(take_text(_type_name(exception)), take_text(_exception_text(exception)))
    finally:
        delete(exception)


# ---- texts: UTF-8 in the library; invalid bytes survive the conversion to Python and back

def take_text(string):
    """The text of a CString, None for null. The reference is released."""
    _thread.prepare()
    address = _text_of(string)
    if address == 2:  # the uninit marker: the text has no UTF-8 form
        raise _error(_extract_exception())
    content = None if address is None or address == 1 else ctypes.string_at(address)
    _unlock(string)
    return None if content is None else content.decode("utf-8", "surrogateescape")


def text(value):
    """The C text for a str, or null for None."""
    if value is None:
        return None
    if not isinstance(value, str):
        raise TypeError(f"a text is a str or None, not {type(value).__name__}")
    if "\0" in value:
        raise ValueError("a text of the library ends at its first null character")
    encoded = value.encode("utf-8", "surrogateescape")
    if len(encoded) >= 2**31 - 1:
        raise OverflowError("a text of the library has less than 2 GiB")
    return encoded


def type_name(pointer):
    """The registered name of the object's class."""
    return take_text(_type_name(pointer))


def write_json(pointer, indent):
    return take_text(call(_write_json, pointer, -1 if indent is None else indent))


def read_json(content):
    """The pointer to the object, with a reference for the caller."""
    return call(_read_json, text(content))


def collection(family, element_in, element_out, kind):
    """The functions of a collection family, such as ("int", c_int, c_int, "sequence"), by their short names."""
    place = ctypes.POINTER(element_out)
    index = ctypes.c_int
    signatures = {
        "sequence": {
            "create": (_object,),
            "getarraysize": (index, _object),
            "get": (element_out, _object, index),
            "set": (None, _object, index, element_in),
            "insert": (None, _object, index, element_in),
            "insertseq": (None, _object, index, _object),
            "removerange": (None, _object, index, index),
            "getclassrtti_c": (_object,),
        },
        "dictionary": {
            "create": (_object,),
            "getcount": (index, _object),
            "find": (ctypes.c_ubyte, _object, _text, place),
            "set": (None, _object, _text, element_in),
            "getkeybyindex": (ctypes.c_ubyte, _object, index, ctypes.POINTER(CString)),
            "setbyindex": (None, _object, index, element_in),
            "remove": (None, _object, _text),
            "getclassrtti_c": (_object,),
        },
    }[kind]
    return {name: function(f"x{family}{kind}_{name}", *signature) for name, signature in signatures.items()}
