"""libzqrtree's R*-tree spatial indexes in SQLite, from Python.

``load(conn)`` loads the extension bundled with this package into a
``sqlite3`` connection; from then on the connection has the ``zqrtree``
virtual table module and its SQL functions (``zqrtree_load``,
``zqrtree_check``, ...). ``Index`` is a thin typed layer over them.

Boxes are tuples of all minima, then all maxima: ``(min0, min1, max0, max1)``
for two axes, as the ``zqrtree`` tool and its CSV files write them.
"""

from __future__ import annotations

import sqlite3
from importlib import metadata
from pathlib import Path
from typing import Iterable, List, Sequence, Tuple

__all__ = ["Box", "Entry", "Index", "OPERATORS", "extension_path", "load"]

try:
    __version__ = metadata.version("zqrtree")
except metadata.PackageNotFoundError:  # run from a source tree
    __version__ = "0"

Box = Sequence[float]
Entry = Tuple[int, Box]
OPERATORS = ("intersect", "contains", "within", "equal", "any")


def extension_path() -> str:
    """The bundled extension, as ``load_extension`` takes it (no suffix)."""
    return str(Path(__file__).resolve().with_name("zqrtree_ext"))


def load(conn: sqlite3.Connection) -> None:
    """Loads the bundled extension into ``conn``.

    Loading stays switched off on the connection afterwards, so SQL run on
    it later cannot load other extensions.
    """
    conn.enable_load_extension(True)
    try:
        conn.load_extension(extension_path())
    finally:
        conn.enable_load_extension(False)


def _quote(name: str) -> str:
    return '"' + name.replace('"', '""') + '"'


class Index:
    """One zqrtree table of a connection that has the extension loaded."""

    def __init__(self, conn: sqlite3.Connection, name: str, dims: int) -> None:
        self.conn = conn
        self.name = name
        self.dims = dims

    @classmethod
    def create(cls, conn: sqlite3.Connection, name: str, dims: int = 2) -> "Index":
        """Creates an empty index of ``dims`` axes (1 to 3)."""
        if dims not in (1, 2, 3):
            raise ValueError(f"an index has 1 to 3 axes, not {dims}")
        columns = ", ".join(f"min{k}, max{k}" for k in range(dims))
        conn.execute(f"CREATE VIRTUAL TABLE {_quote(name)} USING zqrtree(id, {columns})")
        return cls(conn, name, dims)

    @classmethod
    def open(cls, conn: sqlite3.Connection, name: str) -> "Index":
        """An existing index; ``KeyError`` when there is none of that name."""
        row = conn.execute("SELECT dims FROM zqrtree_catalog WHERE name = ?", (name,)).fetchone()
        if row is None:
            raise KeyError(f"no zqrtree index {name!r}")
        return cls(conn, name, int(row[0]))

    def _row(self, entry_id: int, box: Box) -> Tuple[float, ...]:
        if len(box) != 2 * self.dims:
            raise ValueError(f"box {tuple(box)} has {len(box)} coordinates; "
                             f"a {self.dims}-axis index needs {2 * self.dims}")
        pairs: List[float] = []
        for k in range(self.dims):
            pairs += [box[k], box[self.dims + k]]
        return (entry_id, *pairs)

    def insert(self, entry_id: int, box: Box) -> None:
        """Adds one entry, inside the connection's current transaction."""
        marks = ", ".join("?" * (1 + 2 * self.dims))
        self.conn.execute(f"INSERT INTO {_quote(self.name)} VALUES ({marks})",
                          self._row(entry_id, box))

    def bulk_load(self, entries: Iterable[Entry], fill: float = 0.65) -> int:
        """Adds every ``(id, box)`` and rebuilds the tree bottom-up, nodes
        filled to ``fill``; returns how many were added. It is a transaction
        of its own, so the connection must have none open. Nothing is added
        if any entry is refused."""
        if self.conn.in_transaction:
            raise sqlite3.OperationalError("bulk_load runs as a transaction of its own: "
                                           "commit or roll back first")
        src = "temp.zqrtree_py_load"
        columns = ", ".join(f"min{k} REAL, max{k} REAL" for k in range(self.dims))
        marks = ", ".join("?" * (1 + 2 * self.dims))
        self.conn.execute(f"CREATE TABLE {src} (id INTEGER, {columns})")
        try:
            self.conn.executemany(f"INSERT INTO {src} VALUES ({marks})",
                                  (self._row(i, b) for i, b in entries))
            self.conn.commit()
            (added,) = self.conn.execute("SELECT zqrtree_load(?, ?, ?)",
                                         (self.name, f"SELECT * FROM {src}", fill)).fetchone()
        finally:
            if self.conn.in_transaction:
                self.conn.rollback()
            self.conn.execute(f"DROP TABLE {src}")
        return int(added)

    def query(self, box: Box, op: str = "intersect", any_of: bool = False) -> List[int]:
        """Ids of the entries that satisfy ``op`` against ``box``.

        ``op`` is one of ``OPERATORS`` or several joined with ``|``, which
        must all hold; with ``any_of`` any one of them suffices.
        """
        for name in op.split("|"):
            if name not in OPERATORS:
                raise ValueError(f"unknown operator {name!r}; use {', '.join(OPERATORS)}")
        text = f"or({op})" if any_of else op
        row = self._row(0, box)[1:]
        marks = ", ".join("?" * len(row))
        cur = self.conn.execute(f"SELECT id FROM {_quote(self.name)}(?, {marks})", (text, *row))
        return [r[0] for r in cur]

    # Nearest neighbours go here: ``nearest(point, k) -> List[int]``, over
    # the extension's nearest-neighbour search once it has one.

    def check(self) -> str:
        """``"ok"``, or the first thing wrong with the tree."""
        return str(self.conn.execute("SELECT zqrtree_check(?)", (self.name,)).fetchone()[0])

    def __len__(self) -> int:
        return int(self.conn.execute(f"SELECT count(*) FROM {_quote(self.name)}").fetchone()[0])
