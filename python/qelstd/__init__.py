"""The collections, texts and exceptions of qelstd in Python, over the library's flat C interface.

    >>> import qelstd
    >>> ages = qelstd.IntDictionary({"Ada": 36})
    >>> ages["Nobody"] = None                       # null: no value
    >>> sorted(ages.items())
    [('Ada', 36), ('Nobody', None)]

Sequences are mutable sequences like lists, dictionaries mutable mappings like dicts; both hold elements of one type, and
are objects of the library, so that C and C++ code of the same process may share them. A null element is None, an uninit
one UNINIT. A failure in the library is raised as an Error, which is also the built-in exception that Python code expects
(IndexError, ValueError, ...).
"""
from .collections import (BoolDictionary, BoolSequence, Dictionary, IntDictionary, IntSequence, RealDictionary,
                          RealSequence, Sequence, StringDictionary, StringSequence)
from .errors import (ConnectionClosed, Error, InvalidArrayIndex, InvalidDictIndex, InvalidDictKey, InvalidSeqIndex,
                     JsonError, NativeException, NegativeIndex, NotInitialized, NullValue, RefCountable, TypeMismatch)
from .objects import UNINIT, Object, Uninit

__all__ = [
    "BoolDictionary", "BoolSequence", "ConnectionClosed", "Dictionary", "Error", "IntDictionary", "IntSequence",
    "InvalidArrayIndex", "InvalidDictIndex", "InvalidDictKey", "InvalidSeqIndex", "JsonError", "NativeException", "NegativeIndex",
    "NotInitialized", "NullValue", "Object", "RealDictionary", "RealSequence", "RefCountable", "Sequence",
    "StringDictionary", "StringSequence", "TypeMismatch", "UNINIT", "Uninit",
]
