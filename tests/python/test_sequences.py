"""Sequences behave like lists."""
import copy
import itertools
import pickle
import random
import unittest

import qelstd
from qelstd import UNINIT, BoolSequence, IntSequence, RealSequence, StringSequence


class Sequences(unittest.TestCase):
    def test_operations_match_list(self):
        chance = random.Random(7)
        bounds = [None, *range(-9, 10)]

        def place(_):
            return chance.randint(-9, 9)

        def values(_):
            return [chance.randint(-5, 5) for _ in range(chance.randint(0, 4))]

        def part(_):
            return slice(chance.choice(bounds), chance.choice(bounds), chance.choice([None, None, 1, 2, 3, -1, -2]))

        operations = [
            lambda s, i, v, p: s.append(v[0] if v else None),
            lambda s, i, v, p: s.insert(i, 7),
            lambda s, i, v, p: s.extend(v),
            lambda s, i, v, p: s[i],
            lambda s, i, v, p: list(s[p]),
            lambda s, i, v, p: s.__setitem__(i, 9),
            lambda s, i, v, p: s.__setitem__(p, v),
            lambda s, i, v, p: s.__delitem__(i),
            lambda s, i, v, p: s.__delitem__(p),
            lambda s, i, v, p: s.pop(),
            lambda s, i, v, p: s.pop(i),
            lambda s, i, v, p: s.remove(3),
            lambda s, i, v, p: s.index(2),
            lambda s, i, v, p: (4 in s, s.count(1), len(s), bool(s)),
            lambda s, i, v, p: s.reverse(),
            lambda s, i, v, p: list(reversed(s)),
            lambda s, i, v, p: s.extend(s),
            lambda s, i, v, p: s.__setitem__(slice(1, 2), s),
            lambda s, i, v, p: list(s + v),
            lambda s, i, v, p: s.clear() if len(s) > 40 else None,
        ]
        seen = set()
        model, sequence = [], IntSequence()
        for step in range(3000):
            number = chance.randrange(len(operations))
            arguments = place(0), values(0), part(0)
            outcomes = []
            for subject in (model, sequence):
                try:
                    outcomes.append(operations[number](subject, *arguments))
                except (IndexError, ValueError) as raised:
                    outcomes.append(IndexError if isinstance(raised, IndexError) else ValueError)
            self.assertEqual(outcomes[0], outcomes[1], (step, number, arguments, model))
            self.assertEqual(list(sequence), model, (step, number, arguments))
            seen.add((number, outcomes[0] in (IndexError, ValueError)))
        self.assertGreater(len(seen), len(operations) + 5)  # successes of all, failures of many

    def test_elements_of_each_type_are_returned(self):
        cases = [
            (BoolSequence, [True, False, None, UNINIT]),
            (IntSequence, [0, -1, 2**31 - 1, -2**31 + 2, None, UNINIT]),
            (RealSequence, [0.0, -1.5, float("inf"), 5e-324, 1.7976931348623157e308, None, UNINIT]),
            (StringSequence, ["", "Ada", "Ünïcödé \U0001f600", "line\nend", "not UTF-8: \udcff", None]),
        ]
        for kind, elements in cases:
            with self.subTest(kind.__name__):
                sequence = kind(elements)
                self.assertEqual(list(sequence), elements)
                self.assertEqual(sequence, kind(iter(elements)))
                self.assertEqual(sequence[::-1], elements[::-1])
                self.assertEqual(eval(repr(sequence), vars(qelstd), {"inf": float("inf")}), sequence)
                for again in (copy.copy(sequence), copy.deepcopy(sequence), pickle.loads(pickle.dumps(sequence))):
                    self.assertIs(type(again), kind)
                    self.assertEqual(again, sequence)
                    again.append(None)
                    self.assertNotEqual(again, sequence)

    def test_invalid_elements_are_refused_and_change_nothing(self):
        cases = [
            (IntSequence, [2**31, -2**31, -2**31 + 1, 10**30], OverflowError),
            (IntSequence, ["1", 1.0, [1]], TypeError),
            (BoolSequence, [2, -1, 128], ValueError),
            (BoolSequence, ["yes", 1.0], TypeError),
            (RealSequence, [float.fromhex("0x1.7a2ecc414a04p+418"), 9e125, 10**400], OverflowError),
            (RealSequence, [[], object()], TypeError),
            (StringSequence, ["a\0b", "\ud800"], ValueError),
            (StringSequence, [1, b"bytes", UNINIT], TypeError),
        ]
        for kind, values, error in cases:
            sequence = kind([None])
            for value in values:
                with self.subTest(f"{kind.__name__}: {value!r:.40}"):
                    for attempt in (lambda: sequence.append(value), lambda: sequence.insert(0, value),
                                    lambda: sequence.__setitem__(0, value),
                                    lambda: sequence.__setitem__(slice(0, 1), [value])):
                        self.assertRaises(error, attempt)
                    self.assertEqual(list(sequence), [None])

    def test_indices_of_any_size_and_type(self):
        sequence = IntSequence([1, 2, 3])
        for index in (3, -4, 2**31, 2**32, -2**32, 2**32 + 1, 10**30):
            self.assertRaises(IndexError, sequence.__getitem__, index)
            self.assertRaises(IndexError, sequence.__setitem__, index, 0)
            self.assertRaises(IndexError, sequence.__delitem__, index)
        for index in ("0", 1.0, None):
            self.assertRaises(TypeError, sequence.__getitem__, index)
        sequence.insert(2**32, 4)
        sequence.insert(-2**32, 0)
        self.assertEqual(list(sequence), [0, 1, 2, 3, 4])
        self.assertEqual(list(sequence[-2**40:2**40]), [0, 1, 2, 3, 4])

    def test_iteration_includes_elements_appended_meanwhile(self):
        sequence = IntSequence([1, 2])
        walked = []
        for element in sequence:
            walked.append(element)
            if len(sequence) < 5:
                sequence.append(element * 10)
        self.assertEqual(walked, [1, 2, 10, 20, 100])

    def test_equality_with_sequences_and_lists(self):
        self.assertEqual(IntSequence([1, 0]), BoolSequence([True, False]))
        self.assertNotEqual(IntSequence([1]), (1,))
        self.assertNotEqual(IntSequence([1]), IntSequence([1, 1]))
        self.assertNotEqual(IntSequence([None]), IntSequence([UNINIT]))
        self.assertRaises(TypeError, hash, IntSequence())
        self.assertRaises(TypeError, lambda: IntSequence() + (1,))

    def test_large_sequences(self):
        sequence = IntSequence(range(20000))
        self.assertEqual(sum(sequence), 19999 * 10000)
        del sequence[::2]
        self.assertEqual(list(itertools.islice(sequence, 3)), [1, 3, 5])
        self.assertEqual(len(sequence), 10000)


if __name__ == "__main__":
    unittest.main()
