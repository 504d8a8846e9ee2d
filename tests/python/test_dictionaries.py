"""Dictionaries behave like dicts, except for the order of their keys."""
import copy
import pickle
import random
import unittest

import qelstd
from qelstd import UNINIT, BoolDictionary, IntDictionary, RealDictionary, StringDictionary


class Dictionaries(unittest.TestCase):
    def test_operations_match_dict(self):
        chance = random.Random(11)
        operations = [
            lambda d, k, v: d.__setitem__(k, v),
            lambda d, k, v: d.__setitem__(k, v),
            lambda d, k, v: d[k],
            lambda d, k, v: d.__delitem__(k),
            lambda d, k, v: d.get(k, "none"),
            lambda d, k, v: d.pop(k),
            lambda d, k, v: d.pop(k, None),
            lambda d, k, v: d.setdefault(k, v),
            lambda d, k, v: d.update({k: v, k + "'": None}),
            lambda d, k, v: (k in d, len(d), bool(d), sorted(d), sorted(d.items(), key=str)),
            lambda d, k, v: d.clear() if len(d) > 120 else None,
        ]
        model, dictionary = {}, IntDictionary()
        failures = 0
        for step in range(3000):
            number = chance.randrange(len(operations))
            key, value = f"k{chance.randint(0, 60)}", chance.randint(-99, 99)
            outcomes = []
            for subject in (model, dictionary):
                try:
                    outcomes.append(operations[number](subject, key, value))
                except KeyError as raised:
                    outcomes.append(str(raised))
                    failures += 1
            self.assertEqual(outcomes[0], outcomes[1], (step, number, key))
            if step % 50 == 0:
                self.assertEqual(dict(dictionary), model, (step, number))
        self.assertEqual(dictionary, model)
        self.assertGreater(failures, 50)

    def test_values_of_each_type_are_returned(self):
        cases = [
            (BoolDictionary, [True, False, None, UNINIT]),
            (IntDictionary, [0, -7, 2**31 - 1, None, UNINIT]),
            (RealDictionary, [0.5, -1e300, None, UNINIT]),
            (StringDictionary, ["", "Ada", "\U0001f600", None]),
        ]
        for kind, values in cases:
            with self.subTest(kind.__name__):
                entries = {f"Schlüssel {i}": value for i, value in enumerate(values)} | {"": values[0]}
                dictionary = kind(entries)
                self.assertEqual(dict(dictionary), entries)
                self.assertEqual(eval(repr(dictionary), vars(qelstd)), entries)
                for again in (dictionary.copy(), copy.deepcopy(dictionary), pickle.loads(pickle.dumps(dictionary))):
                    self.assertIs(type(again), kind)
                    self.assertEqual(again, dictionary)
                    again["more"] = None
                    self.assertNotEqual(again, dictionary)
        self.assertEqual(IntDictionary([("a", 1)], b=2), {"a": 1, "b": 2})

    def test_invalid_keys(self):
        dictionary = IntDictionary(a=1)
        for key in ("b", "a\0", None, 1, b"a", ("a",)):
            self.assertNotIn(key, dictionary)
            self.assertRaises(KeyError, dictionary.__getitem__, key)
            self.assertRaises(KeyError, dictionary.__delitem__, key)
        for key in (None, 1, b"a", UNINIT):
            self.assertRaises(TypeError, dictionary.__setitem__, key, 1)
        self.assertRaises(ValueError, dictionary.__setitem__, "a\0", 1)
        self.assertRaises(TypeError, dictionary.__setitem__, "a", "text")
        self.assertRaises(OverflowError, dictionary.__setitem__, "new", 2**31)
        self.assertEqual(dict(dictionary), {"a": 1})

    def test_iteration_may_change_dictionary(self):
        dictionary = IntDictionary((f"k{i}", i) for i in range(100))
        for key in dictionary:
            del dictionary[key]
            dictionary[key + "'"] = 1
        self.assertEqual(sorted(dictionary), sorted(f"k{i}'" for i in range(100)))

    def test_popitem_removes_every_entry_once(self):
        entries = {f"k{i}": i for i in range(200)}
        dictionary = IntDictionary(entries)
        taken = dict(dictionary.popitem() for _ in range(200))
        self.assertEqual(taken, entries)
        self.assertFalse(dictionary)
        self.assertRaises(KeyError, dictionary.popitem)

    def test_iteration_leaves_table_unchanged(self):
        # An assignment distinguishes a slot without an entry from one past the table.
        dictionary = StringDictionary(a="1", b="2")
        before = [(key, dictionary[key]) for key in dictionary]
        self.assertEqual(len(dictionary), 2)
        self.assertEqual([(key, dictionary[key]) for key in dictionary], before)
        self.assertNotIn("", dictionary)


if __name__ == "__main__":
    unittest.main()
