"""The library's exceptions as Python's."""


class Error(Exception):
    """A failure reported by the library. `type_name` is the registered name of its class."""

    def __init__(self, text=None, type_name=None):
        super().__init__(text, type_name)
        self.text = text
        self.type_name = type_name

    def __str__(self):
        return self.text or self.type_name or type(self).__name__


class NegativeIndex(Error, IndexError):
    pass


class InvalidSeqIndex(Error, IndexError):
    pass


class InvalidDictIndex(Error, IndexError):
    pass


class InvalidArrayIndex(Error, IndexError):
    pass


class InvalidDictKey(Error, KeyError):
    pass


class NotInitialized(Error, ValueError):
    pass


class NullValue(Error, ValueError):
    pass


class TypeMismatch(Error, TypeError):
    pass


class RefCountable(Error, TypeError):
    pass


class NativeException(Error, RuntimeError):
    pass


class ConnectionClosed(Error, ConnectionError):
    pass


class JsonError(Error, ValueError):
    pass


_BY_TYPE_NAME = {
    "qellib::XNegativeIndex": NegativeIndex,
    "qellib::XInvalidSeqIndex": InvalidSeqIndex,
    "qellib::XInvalidDictIndex": InvalidDictIndex,
    "qellib::XInvalidArrayIndex": InvalidArrayIndex,
    "qellib::XInvalidDictKey": InvalidDictKey,
    "qellib::XNotInitialized": NotInitialized,
    "qellib::XNull": NullValue,
    "qellib::XTypeMismatch": TypeMismatch,
    "qellib::XRefCountable": RefCountable,
    "qellib::XNativeException": NativeException,
    "qellib::XConnectionClosed": ConnectionClosed,
    "qellib::XJson": JsonError,
}


def make(type_name, text):
    """The exception for one of the library's; an Error for a class without a Python counterpart."""
    return _BY_TYPE_NAME.get(type_name, Error)(text, type_name)
