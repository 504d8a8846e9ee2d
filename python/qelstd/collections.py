"""The standard sequences and dictionaries."""
import collections.abc
import ctypes
import itertools
import operator

from . import library
from .errors import InvalidDictIndex, InvalidSeqIndex
from .library import call
from .objects import UNINIT, Object

# ---- elements: each type has its C types, and the conversions of a value to and from the library

_NULL_INT, _UNINIT_INT, _LAST_INT = -2**31, -2**31 + 1, 2**31 - 1
_NULL_BOOL, _UNINIT_BOOL = 128, 129
_NULL_REAL, _UNINIT_REAL = float.fromhex("0x1.7a2ecc414a04p+418"), float.fromhex("0x1.545d516df5d06p+418")


class _Int:
    family, into, out_of = "int", ctypes.c_int, ctypes.c_int

    @staticmethod
    def to_c(value):
        if value is None:
            return _NULL_INT
        if value is UNINIT:
            return _UNINIT_INT
        number = operator.index(value)
        if not _UNINIT_INT < number <= _LAST_INT:
            raise OverflowError(f"an int of the library is between {_UNINIT_INT + 1} and {_LAST_INT}: {number}")
        return number

    @staticmethod
    def from_c(value):
        return value if value > _UNINIT_INT else None if value == _NULL_INT else UNINIT


class _Bool:
    family, into, out_of = "bool", ctypes.c_ubyte, ctypes.c_ubyte

    @staticmethod
    def to_c(value):
        if value is None:
            return _NULL_BOOL
        if value is UNINIT:
            return _UNINIT_BOOL
        if operator.index(value) not in (0, 1):
            raise ValueError(f"neither true nor false: {value!r}")
        return int(value)

    @staticmethod
    def from_c(value):
        return None if value == _NULL_BOOL else UNINIT if value == _UNINIT_BOOL else value != 0


class _Real:
    family, into, out_of = "real", ctypes.c_double, ctypes.c_double

    @staticmethod
    def to_c(value):
        if value is None:
            return _NULL_REAL
        if value is UNINIT:
            return _UNINIT_REAL
        number = float(value)
        if number in (_NULL_REAL, _UNINIT_REAL):
            raise OverflowError(f"the library keeps this number for itself: {number!r}")
        return number

    @staticmethod
    def from_c(value):
        return None if value == _NULL_REAL else UNINIT if value == _UNINIT_REAL else value


class _String:
    family, into, out_of = "string", ctypes.c_char_p, library.CString
    to_c = staticmethod(library.text)  # None is null; a text is never uninit
    from_c = staticmethod(library.take_text)


class _Collection(Object):
    """The base of sequences and dictionaries: the functions of their element's family."""
    _functions = _element = None

    def __init_subclass__(cls, element=None, **arguments):
        if element is not None:
            cls._element = element
            cls._functions = library.collection(element.family, element.into, element.out_of, cls._kind)
            cls._descriptor = cls._functions["getclassrtti_c"]()
        super().__init_subclass__(**arguments)

    def __init__(self):
        if self._functions is None:
            raise TypeError(f"{type(self).__name__} is the base of the classes for each type of elements")
        self._pointer = call(self._functions["create"])

    def _call(self, name, *arguments):
        return call(self._functions[name], self._pointer, *arguments)


# ---- sequences

class Sequence(_Collection, collections.abc.MutableSequence):
    """A mutable sequence of the library, with elements of one type; slices are new sequences of the same class."""
    _kind = "sequence"

    def __init__(self, elements=()):
        super().__init__()
        self.extend(elements)

    def _make_room(self, more):
        """Returns the number of elements after checking that `more` can be added."""
        size = len(self)
        # A larger sequence would throw a C++ exception, which ends the process.
        if (size + more) * ctypes.sizeof(self._element.out_of) >= 2**31:
            raise OverflowError(f"a {type(self).__name__} has less than 2 GiB")
        return size

    def _place(self, index):
        """The index of an existing element, counted from the front."""
        size = len(self)
        place = operator.index(index)
        if place < 0:
            place += size
        if not 0 <= place < size:
            raise IndexError(f"index {index} in a sequence of {size}")
        return place

    def __len__(self):
        return self._call("getarraysize")

    def __getitem__(self, index):
        if isinstance(index, slice):
            return self._slice(*index.indices(len(self)))
        # The library itself refuses an index past the end.
        place = index if type(index) is int and 0 <= index <= _LAST_INT else self._place(index)
        return self._element.from_c(self._call("get", place))

    def _slice(self, start, stop, step):
        made = type(self)()
        if step != 1:
            made.extend(self[place] for place in range(start, stop, step))
        elif start < stop:
            made._call("insertseq", 0, self._pointer)
            made._call("removerange", stop, len(self))
            made._call("removerange", 0, start)
        return made

    def __setitem__(self, index, value):
        if not isinstance(index, slice):
            self._call("set", self._place(index), self._element.to_c(value))
            return
        start, stop, step = index.indices(len(self))
        values = type(self)(value)
        if step == 1:
            stop = max(start, stop)
            self._make_room(len(values))
            self._call("insertseq", stop, values._pointer)
            self._call("removerange", start, stop)
            return
        places = range(start, stop, step)
        if len(values) != len(places):
            raise ValueError(f"{len(values)} values for {len(places)} places")
        for place, element in zip(places, values):
            self[place] = element

    def __delitem__(self, index):
        if not isinstance(index, slice):
            place = self._place(index)
            self._call("removerange", place, place + 1)
            return
        start, stop, step = index.indices(len(self))
        if step == 1:
            if start < stop:
                self._call("removerange", start, stop)
            return
        kept = list(self)
        del kept[index]
        self[:] = kept

    def __iter__(self):
        for index in itertools.count():
            try:
                element = self._call("get", index)
            except InvalidSeqIndex:
                return
            yield self._element.from_c(element)

    def insert(self, index, value):
        size = self._make_room(1)
        place = operator.index(index)
        place = max(place + size, 0) if place < 0 else min(place, size)
        self._call("insert", place, self._element.to_c(value))

    def append(self, value):
        self._call("set", self._make_room(1), self._element.to_c(value))

    def extend(self, values):
        if type(values) is type(self):
            self._call("insertseq", self._make_room(len(values)), values._pointer)
            return
        for value in values:
            self.append(value)

    def clear(self):
        del self[:]

    def copy(self):
        return self[:]

    def __add__(self, other):
        if not isinstance(other, (type(self), list)):
            return NotImplemented
        made = self.copy()
        made.extend(other)
        return made

    def __eq__(self, other):
        if not isinstance(other, (Sequence, list)):
            return NotImplemented
        return len(self) == len(other) and all(a is b or a == b for a, b in zip(self, other))

    __hash__ = None

    def __reduce__(self):
        return type(self), (list(self),)

    def __repr__(self):
        return f"{type(self).__name__}({list(self)!r})"


# ---- dictionaries

class Dictionary(_Collection, collections.abc.MutableMapping):
    """A mutable mapping of the library, from str to values of one type. Its order is that of the library's table, which
    may change with each new key and each removal."""
    _kind = "dictionary"

    def __init__(self, entries=(), /, **more):
        super().__init__()
        self.update(entries, **more)

    @staticmethod
    def _key(key):
        """The key for a look-up, or None when the library cannot have such a key."""
        return library.text(key) if isinstance(key, str) and "\0" not in key else None

    def __getitem__(self, key):
        wanted = self._key(key)
        value = self._element.out_of()
        if wanted is None or not self._call("find", wanted, ctypes.byref(value)):
            raise KeyError(key)
        return self._element.from_c(getattr(value, "value", value))

    def __contains__(self, key):
        wanted = self._key(key)
        return wanted is not None and bool(self._call("find", wanted, None))

    def __setitem__(self, key, value):
        if not isinstance(key, str):
            raise TypeError(f"a key is a str, not {type(key).__name__}")
        self._call("set", library.text(key), self._element.to_c(value))

    def __delitem__(self, key):
        if key not in self:
            raise KeyError(key)
        self._call("remove", self._key(key))

    def _walk(self):
        """The keys by slot. A slot without one is empty or past the table: an assignment to it distinguishes them."""
        nothing = self._element.to_c(None)
        for slot in itertools.count():
            key = library.CString()
            found = self._call("getkeybyindex", slot, ctypes.byref(key))
            text = library.take_text(key)
            if not found:
                try:
                    self._call("setbyindex", slot, nothing)
                except InvalidDictIndex:
                    return
            if found:
                yield text

    def __iter__(self):
        return iter(list(self._walk()))

    def __len__(self):
        return self._call("getcount")

    def popitem(self):
        for key in self._walk():
            return key, self.pop(key)
        raise KeyError("the dictionary is empty")

    def clear(self):
        for key in self:
            del self[key]

    def copy(self):
        return type(self)(self)

    __eq__ = collections.abc.Mapping.__eq__  # by keys and values, not as objects are compared
    __hash__ = None

    def __reduce__(self):
        return type(self), (dict(self),)

    def __repr__(self):
        return f"{type(self).__name__}({dict(self)!r})"


# ---- the classes

class BoolSequence(Sequence, element=_Bool):
    """A sequence of True, False, None and UNINIT."""


class IntSequence(Sequence, element=_Int):
    """A sequence of 32-bit numbers except the two lowest, None and UNINIT."""


class RealSequence(Sequence, element=_Real):
    """A sequence of numbers, None and UNINIT."""


class StringSequence(Sequence, element=_String):
    """A sequence of texts and None."""


class BoolDictionary(Dictionary, element=_Bool):
    """A dictionary with the values True, False, None and UNINIT."""


class IntDictionary(Dictionary, element=_Int):
    """A dictionary with 32-bit numbers except the two lowest, None and UNINIT as values."""


class RealDictionary(Dictionary, element=_Real):
    """A dictionary with numbers, None and UNINIT as values."""


class StringDictionary(Dictionary, element=_String):
    """A dictionary with texts and None as values."""
