"""The samples in the package's documents are correct."""
import doctest
import pathlib
import unittest

import qelstd

README = pathlib.Path(__file__).parents[2] / "python" / "README.md"


class Samples(unittest.TestCase):
    def test_samples(self):
        for name, result in [("README.md", doctest.testfile(str(README), module_relative=False)),
                             ("qelstd", doctest.testmod(qelstd))]:
            with self.subTest(name):
                self.assertGreater(result.attempted, 0)
                self.assertEqual(result.failed, 0)


if __name__ == "__main__":
    unittest.main()
