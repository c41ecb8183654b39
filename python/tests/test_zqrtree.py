"""The installed zqrtree package against a brute-force model: bulk load and
inserts in every axis count, every operator, refusals that change nothing.
Run by scripts/check-python.sh after a pip install into a fresh venv."""

import random
import sqlite3
import tempfile
import unittest
from pathlib import Path

import zqrtree


def matches(op, entry, box, dims):
    lo_e, hi_e, lo_q, hi_q = entry[:dims], entry[dims:], box[:dims], box[dims:]
    meets = all(a <= d and c <= b for a, b, c, d in zip(lo_e, hi_e, lo_q, hi_q))
    holds = {
        "intersect": meets,
        "contains": all(a <= c and d <= b for a, b, c, d in zip(lo_e, hi_e, lo_q, hi_q)),
        "within": all(c <= a and b <= d for a, b, c, d in zip(lo_e, hi_e, lo_q, hi_q)),
        "equal": tuple(entry) == tuple(box),
    }
    return holds[op]


def random_box(rng, dims):
    lo = [rng.randint(0, 80) / 4 for _ in range(dims)]
    return tuple(lo + [v + rng.randint(0, 12) / 4 for v in lo])


class PackageTest(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.TemporaryDirectory()
        self.conn = sqlite3.connect(str(Path(self.dir.name) / "t.db"))
        zqrtree.load(self.conn)

    def tearDown(self):
        self.conn.close()
        self.dir.cleanup()

    def test_the_bundled_extension_is_the_installed_one(self):
        self.assertTrue(Path(zqrtree.extension_path() + ".so").is_file())
        self.assertNotIn("/build", zqrtree.extension_path())
        self.assertRegex(zqrtree.__version__, r"^\d+\.\d+\.\d+$")

    def test_operators_answer_as_the_model_in_every_axis_count(self):
        rng = random.Random(7)
        for dims in (1, 2, 3):
            index = zqrtree.Index.create(self.conn, f"i{dims}", dims)
            model = {i: random_box(rng, dims) for i in range(1, 400)}
            self.assertEqual(index.bulk_load(model.items(), fill=0.9), len(model))
            with self.conn:
                for i in range(400, 450):
                    model[i] = random_box(rng, dims)
                    index.insert(i, model[i])
            again = zqrtree.Index.open(self.conn, f"i{dims}")
            self.assertEqual((again.dims, len(again), again.check()), (dims, 449, "ok"))
            for box in [random_box(rng, dims) for _ in range(5)] + [model[3]]:
                for op in ("intersect", "contains", "within", "equal"):
                    want = sorted(i for i, e in model.items() if matches(op, e, box, dims))
                    self.assertEqual(sorted(again.query(box, op)), want, (dims, op, box))
                either = sorted(i for i, e in model.items()
                                if matches("within", e, box, dims) or matches("equal", e, box, dims))
                self.assertEqual(sorted(again.query(box, "within|equal", any_of=True)), either)

    def test_refusals_change_nothing(self):
        index = zqrtree.Index.create(self.conn, "t")
        index.bulk_load([(1, (0, 0, 1, 1))])
        with self.assertRaisesRegex(sqlite3.Error, "above"):
            index.bulk_load([(2, (0, 0, 1, 1)), (3, (5, 0, 1, 1))])
        with self.assertRaisesRegex(ValueError, "a 2-axis index needs 4"):
            index.insert(4, (0, 0, 1))
        with self.assertRaisesRegex(ValueError, "unknown operator 'near'"):
            index.query((0, 0, 1, 1), "near")
        with self.assertRaises(KeyError):
            zqrtree.Index.open(self.conn, "nope")
        self.conn.execute("INSERT INTO t VALUES (9, 0, 1, 0, 1)")  # a transaction opens
        with self.assertRaisesRegex(sqlite3.OperationalError, "commit or roll back first"):
            index.bulk_load([(5, (0, 0, 1, 1))])
        self.conn.rollback()
        self.assertEqual((len(index), index.query((0, 0, 9, 9))), (1, [1]))


if __name__ == "__main__":
    unittest.main()
