"""Objects of the library, and the value for "never set"."""
import ctypes
import sys

from . import library


class Uninit:
    """The type of UNINIT, a value that was never set; None is a missing value. False in a condition."""
    _one = None

    def __new__(cls):
        if cls._one is None:
            cls._one = super().__new__(cls)
        return cls._one

    def __repr__(self):
        return "UNINIT"

    def __bool__(self):
        return False

    def __reduce__(self):
        return (Uninit, ())


UNINIT = Uninit()
_UNINIT_POINTER = 22

_flush = ctypes.PyDLL(None).fflush


class Object:
    """Owns a reference to an object of the library.

    `adopt` and `share` wrap objects made by other code of the process; `pointer` passes an object to such code."""
    _pointer = None
    _descriptor = None  # of the objects that a class wraps; null: of any
    _known = []  # the classes that have one

    def __init__(self):
        raise TypeError(f"{type(self).__name__} is made by adopt() or share()")

    def __init_subclass__(cls, **arguments):
        super().__init_subclass__(**arguments)
        if "_descriptor" in vars(cls):
            Object._known.append(cls)

    @classmethod
    def _class_for(cls, pointer):
        if cls._descriptor is None:
            known = (known for known in Object._known if library.is_kind_of(pointer, known._descriptor))
            made = next(known, Object)
        else:
            made = cls if library.is_kind_of(pointer, cls._descriptor) else Object
        if not issubclass(made, cls):
            raise TypeError(f"an object of type {library.type_name(pointer)} is no {cls.__name__}")
        return made

    def __del__(self, delete=library.delete):
        if self._pointer is not None:
            delete(self._pointer)

    @classmethod
    def adopt(cls, pointer):
        """Takes over a reference that the caller owns: an object of the Python class for the object's type, or of
        Object. None for null, UNINIT for the uninit pointer.

        Raises TypeError when that is no `cls`; the caller then keeps the reference."""
        if pointer is None or pointer == 0:
            return None
        if pointer == _UNINIT_POINTER:
            return UNINIT
        made = object.__new__(cls._class_for(pointer))
        made._pointer = pointer
        return made

    @classmethod
    def share(cls, pointer):
        """The same with an additional reference, for objects of countable classes; the caller keeps its own."""
        if pointer not in (None, 0, _UNINIT_POINTER) and not library.is_countable(pointer):
            raise TypeError(f"objects of type {library.type_name(pointer)} are not counted")
        library.attach(pointer)
        try:
            return cls.adopt(pointer)
        except TypeError:
            library.delete(pointer)
            raise

    @property
    def pointer(self):
        """The address, valid during this object's lifetime; the caller gets no reference."""
        return self._pointer

    @property
    def type_name(self):
        """The name under which the object's class is registered."""
        return library.type_name(self._pointer)

    def print(self):
        """Writes the object and its contents to the standard output of the process."""
        sys.stdout.flush()
        library.print_object(self._pointer)
        _flush(None)

    def to_json(self, indent=None):
        """The object and its contents as JSON, in the library's form. `indent`: blanks for each level."""
        return library.write_json(self._pointer, indent)

    @classmethod
    def from_json(cls, text):
        """The object of which the JSON text consists. Raises JsonError, and TypeError for another class."""
        pointer = library.read_json(text)
        try:
            return cls.adopt(pointer)
        except TypeError:
            library.delete(pointer)
            raise

    def __repr__(self):
        return f"<{self.type_name} at {self._pointer:#x}>"

    def __eq__(self, other):
        return self._pointer == other._pointer if isinstance(other, Object) else NotImplemented

    def __hash__(self):
        return hash(self._pointer)
