"""References, exceptions, markers, and threads."""
import copy
import ctypes
import gc
import os
import pickle
import subprocess
import sys
import threading
import unittest

import qelstd
from qelstd import UNINIT, IntDictionary, IntSequence, Object, StringSequence, library

create_int_sequence = library.function("xintsequence_create", ctypes.c_void_p)
release = library.function("xrcrelease_c", None, ctypes.c_void_p)
set_exception = library.function("xsetexc_c", None, ctypes.c_void_p)


def count(pointer):
    """The reference count of an object, which follows its vtable pointer."""
    return ctypes.c_int32.from_address(pointer + ctypes.sizeof(ctypes.c_void_p)).value


class Ownership(unittest.TestCase):
    def test_python_object_holds_one_reference(self):
        sequence = IntSequence([1])
        self.assertEqual(count(sequence.pointer), 1)
        for _ in range(10):  # failures hold references meanwhile, and release them
            self.assertRaises(IndexError, library.call, sequence._functions["get"], sequence.pointer, 5)
        self.assertEqual(count(sequence.pointer), 1)

    def test_adopt_takes_over_and_share_adds_reference(self):
        pointer = create_int_sequence()
        shared = Object.share(pointer)
        self.assertIs(type(shared), IntSequence)
        self.assertEqual(count(pointer), 2)

        adopted = IntSequence.adopt(pointer)
        adopted.append(5)
        self.assertEqual(list(shared), [5])
        del shared
        gc.collect()
        self.assertEqual(count(pointer), 1)
        self.assertEqual(adopted[0], 5)

    def test_object_of_another_class_stays_with_caller(self):
        pointer = create_int_sequence()
        for kind in (StringSequence, qelstd.Dictionary):
            with self.assertRaisesRegex(TypeError, "intseq"):
                kind.adopt(pointer)
            with self.assertRaisesRegex(TypeError, "intseq"):
                kind.share(pointer)
        self.assertEqual(count(pointer), 1)
        release(pointer)

    def test_adopt_as_python_subclass(self):
        class Ages(IntSequence):
            pass
        made = Ages([1, 2])
        self.assertIs(type(made[:1]), Ages)
        self.assertIs(type(Ages.share(made.pointer)), Ages)
        self.assertIs(type(Object.share(made.pointer)), IntSequence)

    def test_null_and_uninit_pointers(self):
        for null in (None, 0):
            self.assertIsNone(Object.adopt(null))
            self.assertIsNone(IntSequence.share(null))
        self.assertIs(Object.adopt(22), UNINIT)
        self.assertIs(Object.share(22), UNINIT)

    def test_bases_cannot_be_created(self):
        for kind in (Object, qelstd.Sequence, qelstd.Dictionary):
            self.assertRaises(TypeError, kind)

    @unittest.skipIf("asan" in os.environ.get("LD_PRELOAD", ""), "the address sanitizer keeps freed memory")
    def test_memory_is_freed(self):
        def use():
            for kind in (IntSequence, StringSequence):
                sequence = kind()
                sequence[:] = [None] * 50
                sequence[10:20] = sequence[::-1]
                with self.assertRaises(IndexError):
                    sequence[1000]
            texts = StringSequence(["x" * 20000] * 5)
            self.assertEqual(len(texts[3]), 20000)
            dictionary = qelstd.StringDictionary({"k" * 1000: "v" * 20000})
            self.assertEqual(len(dictionary.popitem()[1]), 20000)
            self.assertRaises(IndexError, library.call, sequence._functions["get"], sequence.pointer, -1)

        def resident():
            with open("/proc/self/statm") as statm:
                return int(statm.read().split()[1]) * os.sysconf("SC_PAGESIZE")

        for _ in range(30):
            use()
        before = resident()
        for _ in range(300):
            use()
        gc.collect()
        # One text of each round kept would be six million bytes.
        self.assertLess(resident() - before, 3_000_000)


class Exceptions(unittest.TestCase):
    def test_are_built_in_exceptions_with_library_text(self):
        sequence, dictionary = IntSequence(), IntDictionary()
        cases = [
            (lambda: library.call(sequence._functions["get"], sequence.pointer, 5), qelstd.InvalidSeqIndex, IndexError,
             "qellib::XInvalidSeqIndex", "Sequence index is out of range (index 5, size 0)"),
            (lambda: library.call(sequence._functions["get"], sequence.pointer, -1), qelstd.NegativeIndex, IndexError,
             "qellib::XNegativeIndex", "Negative index (index -1)"),
            (lambda: library.call(sequence._functions["getarraysize"], None), qelstd.NotInitialized, ValueError,
             "qellib::XNotInitialized", "Object is not initialized or has been destroyed"),
            (lambda: library.call(IntDictionary._functions["setbyindex"], dictionary.pointer, 99, 1),
             qelstd.InvalidDictIndex, IndexError, "qellib::XInvalidDictIndex",
             "Dictionary index is out of range (slot 99, slots 0)"),
        ]
        for failing, kind, built_in, type_name, text in cases:
            with self.subTest(type_name), self.assertRaises(kind) as caught:
                failing()
            self.assertIsInstance(caught.exception, built_in)
            self.assertIsInstance(caught.exception, qelstd.Error)
            self.assertEqual((caught.exception.type_name, str(caught.exception)), (type_name, text))

    def test_exception_left_by_other_code_is_not_raised_by_next_call(self):
        failing = library.function("xintsequence_get", ctypes.c_int, ctypes.c_void_p, ctypes.c_int)
        sequence = IntSequence([1])
        failing(sequence.pointer, 7)
        self.assertEqual(len(sequence), 1)
        set_exception(None)

    def test_unknown_class_is_error(self):
        raised = qelstd.errors.make("mylib::XBroken", None)
        self.assertIs(type(raised), qelstd.Error)
        self.assertEqual(str(raised), "mylib::XBroken")

    def test_pickle_round_trip(self):
        raised = pickle.loads(pickle.dumps(qelstd.errors.make("qellib::XNull", "no value")))
        self.assertIs(type(raised), qelstd.NullValue)
        self.assertEqual((str(raised), raised.type_name), ("no value", "qellib::XNull"))


class Values(unittest.TestCase):
    def test_uninit_is_singleton(self):
        self.assertIs(qelstd.Uninit(), UNINIT)
        self.assertIs(copy.deepcopy(UNINIT), UNINIT)
        self.assertIs(pickle.loads(pickle.dumps(UNINIT)), UNINIT)
        self.assertEqual(repr(UNINIT), "UNINIT")
        self.assertFalse(UNINIT)

    def test_type_names_and_printing(self):
        self.assertEqual(IntDictionary().type_name, "intdict")
        self.assertEqual(StringSequence().type_name, "stringseq")
        program = "import qelstd; print('before'); qelstd.IntSequence([1, None]).print(); print('after')"
        printed = subprocess.run([sys.executable, "-c", program], capture_output=True, text=True, check=True).stdout
        self.assertEqual(printed, "before\nintseq\n[\n  0 : 1\n  1 : nil\n]after\n")

    def test_package_names_library_of_its_build(self):
        expected = os.environ.get("QELSTD_SONAME")
        self.assertEqual(library.SONAME, expected)


class Json(unittest.TestCase):
    def test_objects_are_written_and_read(self):
        ages = IntDictionary({"Ada": 36, "Nobody": None})
        again = Object.from_json(ages.to_json(indent=2))
        self.assertIs(type(again), IntDictionary)
        self.assertEqual(again, ages)
        self.assertEqual(count(again.pointer), 1)
        self.assertEqual(StringSequence.from_json('{"$type": "stringseq", "$value": ["\\u00e4"]}'), ["\u00e4"])

    def test_failures_say_where(self):
        with self.assertRaisesRegex(qelstd.JsonError, r"^\$\.x \(line 1, column 6\): expected a value, found nix$"):
            Object.from_json('{"x":nix}')
        with self.assertRaises(TypeError):
            IntSequence.from_json("[1]")
        with self.assertRaises(ValueError):
            Object.from_json("5")


class Threads(unittest.TestCase):
    def test_each_thread_has_own_failures(self):
        wrong = []

        def work(size):
            sequence = IntSequence(range(size))
            dictionary = IntDictionary((str(i), i) for i in range(size))
            for _ in range(200):
                try:
                    library.call(sequence._functions["get"], sequence.pointer, size)
                    wrong.append("no failure")
                except qelstd.InvalidSeqIndex:
                    pass
                if sequence[-1] != size - 1 or len(sequence) != size or str(size) in dictionary:
                    wrong.append("a wrong answer")
            if len(dictionary) != size:
                wrong.append("a wrong size")

        interval = sys.getswitchinterval()
        sys.setswitchinterval(1e-6)
        try:
            threads = [threading.Thread(target=work, args=(size,)) for size in range(1, 5)]
            for thread in threads:
                thread.start()
            for thread in threads:
                thread.join()
        finally:
            sys.setswitchinterval(interval)
        self.assertEqual(wrong, [])

    def test_other_code_does_not_clear_failure(self):
        other = ctypes.CDLL(library._path())  # releases the GIL
        stop = threading.Event()

        def clear():
            while not stop.is_set():
                other.xcleanupexc_c()

        beside = threading.Thread(target=clear)
        beside.start()
        try:
            empty = IntSequence()
            for _ in range(2000):
                with self.assertRaises(qelstd.InvalidSeqIndex):
                    library.call(empty._functions["get"], empty.pointer, 0)
        finally:
            stop.set()
            beside.join()


if __name__ == "__main__":
    unittest.main()
