"""norvane.portfolio: books read with Arrow batch by batch, every kind of bad cell, every input kind."""

import contextlib
import csv
import gzip
import io
import math
import re
from pathlib import Path

import numpy as np
import pandas as pd
import pyarrow as pa
import pyarrow.compute as pc
import pyarrow.dataset as ds
import pyarrow.parquet as pq
import pytest
from hypothesis import example, given, settings
from hypothesis import strategies as st

from norvane.interest_rates import InterestRate
from norvane.portfolio import InputError, _sources, stream_book, value_book, write_table
from norvane.portfolio._output import atomic_path

V = 1 / 1.03
CURVE = InterestRate(0.03)
FREQUENCIES = "(1, 2, 3, 4, 6, 12, 13, 24, 26, 52, 365)"
# Header names in any case; the second "term" column is ignored.
HEADER = "\ufeffID,Term,deferment,shift,frequency,timing,growth,benefit,term"
# (CSV record, closed-form value or the record's message): valid records between every kind of bad cell.
RECORDS = [
    ("r,5", "record has 2 fields, the header has 9"),
    ("a,10,,,,,,,99", (1 - V**10) / (1 - V)),
    ('"b, with comma",10,,,,due,,2,x', 2 * (1 - V**10) / (1 - V)),
    ('"c\nline",1_0,,,,,,,', (1 - V**10) / (1 - V)),  # a multi-line id; float() reads 1_0
    ("d, 5 ,,,,  Immediate ,,,", (1 - V**5) / 0.03),
    ("e,   ,,,,,,,", 1 / (1 - V)),  # a blank term: a perpetuity
    ("f,abc,,,,,,,", "term is not a number, got 'abc'"),
    ("g,nan(1),,,,,,,", "term is not a number, got 'nan(1)'"),
    ("h,nan,,,,,,,", "term must be >= 0.0 and finite, got nan"),
    ("i,-3,,,,,,,", "term must be >= 0.0 and finite, got -3.0"),
    ("j,5,x,,,,,,", "deferment is not a number, got 'x'"),
    ("k,5,,-2,,,,,", "shift must be >= 0.0 and finite, got -2.0"),
    ("l,5,,,5,,,,", f"frequency must be one of {FREQUENCIES}, got '5'"),
    ("m,5,,,monthly,,,,", "frequency is not a number, got 'monthly'"),
    ("v,5,,,12.5,,,,", f"frequency must be one of {FREQUENCIES}, got '12.5'"),
    ("n,5,,,,arrears,,,", "timing must be 'due' or 'immediate', got 'arrears'"),
    ("o,5,,,,,-2,,", "growth must be a finite rate above -1, got '-2'"),
    ("p,5,,,,,2%,,", "growth is not a number, got '2%'"),
    ("q,5,,,,,,-1,", "benefit must be a finite amount >= 0, got '-1'"),
    ("u,5,,,,,,inf,", "benefit must be a finite amount >= 0, got 'inf'"),
    ("t,5,x,,5,,,,", "deferment is not a number, got 'x'"),  # the first defect of a record wins
    ("w,20,5,2,4,immediate,,100,", 100 * V**3 * (1 - V**20) / (4 * (1.03**0.25 - 1))),
    ("x,10,,,,,0.02,,", (1 - (1.02 * V) ** 10) / (1 - 1.02 * V)),
    ("s,5,,,,,,,,,extra", "record has 11 fields, the header has 9"),
]


def check(result, records=RECORDS):
    """Ids, values against the closed forms, messages, their order, and the summary."""
    ids = [next(csv.reader(io.StringIO(line)))[0] for line, _ in records]
    assert list(result.id) == ids
    for value, error, (line, expected) in zip(result.present_value, result.error, records):
        if isinstance(expected, str):
            assert math.isnan(value) and error == expected, line
        else:
            assert value == pytest.approx(expected, rel=1e-10) and error is None, line
    summary = result.summary()
    valid = [e for _, e in records if not isinstance(e, str)]
    assert (summary.policies, summary.valued, summary.errors) == (len(records), len(valid), len(records) - len(valid))
    assert summary.total_present_value == pytest.approx(math.fsum(valid), rel=1e-10)
    assert summary.first_errors == [(i, e) for i, (_, e) in zip(ids, records) if isinstance(e, str)][:5]
    rows = result.to_arrow().to_pylist()
    assert [(r["id"], r["error"]) for r in rows] == list(zip(result.id, result.error))
    assert [r["present_value"] for r in rows] == pytest.approx(result.present_value.tolist(), nan_ok=True)


@pytest.fixture(params=["one batch", "batches of a few records"])
def batches(request, monkeypatch):
    if request.param != "one batch":  # broken records fall at the start, middle and end of batches
        monkeypatch.setattr(_sources, "CSV_BLOCK_BYTES", 64)
        monkeypatch.setattr(_sources, "BATCH_ROWS", 3)


def written(path):
    """(id, repr of the present value, error or None) per row of an output file."""
    if path.suffix == ".parquet":
        return [(r["id"], repr(r["present_value"]), r["error"]) for r in pq.read_table(path).to_pylist()]
    with gzip.open(path, "rt", newline="") as f:
        return [(r["id"], repr(float(r["present_value"])), r["error"] or None) for r in csv.DictReader(f)]


def book_text(records=RECORDS):
    return HEADER + "\n" + "\n".join(line for line, _ in records) + "\n"


@pytest.mark.parametrize("name, compressed", [("b.csv", False), ("b.csv.gz", True), ("b.dat", True)])
def test_csv_every_kind_of_cell(tmp_path, batches, name, compressed):
    book = tmp_path / name  # gzip is known by its content, not by the name
    book.write_bytes(gzip.compress(book_text().encode()) if compressed else book_text().encode())
    result = value_book(book, CURVE)
    check(result)
    for output in ("values.csv.gz", "values.parquet"):  # streamed out: the same table
        stream_book(book, CURVE, tmp_path / output)
        assert written(tmp_path / output) == list(
            zip(result.id, map(repr, result.present_value.tolist()), result.error)
        )


class CStream:
    """Only the Arrow PyCapsule stream interface, as a polars DataFrame offers it."""

    def __init__(self, table):
        self.table = table

    def __arrow_c_stream__(self, requested_schema=None):
        return self.table.__arrow_c_stream__(requested_schema)


def dictionary_encoded(table):
    """Every column as a dictionary, with empty cells as nulls (both are missing cells)."""
    columns = [pc.dictionary_encode(pc.if_else(pc.equal(c, ""), None, c)) for c in table.columns]
    return pa.table(columns, table.column_names)


def parquet_directory(table, directory):
    for start in range(0, table.num_rows, 8):  # files sort in the records' order
        pq.write_table(table.slice(start, 8), directory / f"part-{start:02}.parquet")
    return directory


INPUTS = {
    "pandas": lambda table, _: table.to_pandas(),
    "Table": lambda table, _: table,
    "RecordBatchReader": lambda table, _: pa.RecordBatchReader.from_batches(table.schema, table.to_batches(4)),
    "Dataset": lambda table, _: ds.dataset(table),
    "C stream": lambda table, _: CStream(table),
    "dict": lambda table, _: table.to_pydict(),
    "dictionary-encoded": lambda table, _: dictionary_encoded(table),
    "Parquet file": lambda table, directory: parquet_directory(table, directory) / "part-00.parquet",
    "Parquet directory": parquet_directory,
}


@pytest.mark.parametrize("kind", INPUTS)
def test_every_input_kind_gives_the_same_values(tmp_path, batches, kind):
    records = [(line, e) for line, e in RECORDS if "fields" not in str(e)]  # a table cannot hold broken rows
    if kind == "Parquet file":
        records = records[:8]
    rows = list(csv.reader(io.StringIO(book_text(records).lstrip("\ufeff"))))
    table = pa.Table.from_arrays([pa.array(column, pa.string()) for column in zip(*rows[1:])], names=rows[0])
    check(value_book(INPUTS[kind](table, tmp_path), CURVE), records)
    if kind == "pandas":  # the values keep the frame's index
        index = pd.RangeIndex(len(records)) * 7
        frame = value_book(table.to_pandas().set_axis(index), CURVE).to_pandas()
        assert frame.index.equals(index) and str(frame["error"].dtype) == "string"


def test_typed_columns_nan_is_a_missing_cell_and_ids_read_as_python_writes_them():
    table = pa.table(
        {
            "id": pa.array([5.0, None, math.nan, 0.25]),
            "term": [math.nan, 10.0, None, 10.0],  # NaN and null: perpetuities
            "timing": pa.array([math.nan, None, 1.0, 4.0]),  # NaN and null: due; a number is no timing
            "frequency": pa.array([1, 1, 5, 1], pa.int64()),
            "growth": pa.nulls(4),  # a column of None only: every cell missing
        }
    )
    result = value_book(table, CURVE)
    assert list(result.id) == ["5.0", "", "", "0.25"]
    assert result.present_value[:2].tolist() == pytest.approx([1 / (1 - V), (1 - V**10) / (1 - V)], rel=1e-10)
    assert list(result.error) == [
        None,
        None,
        f"frequency must be one of {FREQUENCIES}, got 5",
        "timing must be 'due' or 'immediate', got 4.0",
    ]
    flags = value_book({"id": [True, False, None], "term": [1, 2, 3]}, CURVE)
    assert list(flags.id) == ["True", "False", ""]
    # an int beyond 64 bits in a frame is one bad cell, not a failed book
    huge = value_book(pd.DataFrame({"term": [10.0, 5.0], "frequency": [1, 2**70]}), CURVE)
    assert huge.error[1] == f"frequency must be one of {FREQUENCIES}, got '{2**70}'"
    assert huge.present_value[0] == pytest.approx((1 - V**10) / (1 - V), rel=1e-10)
    # a text dictionary that fills its narrow index type, with a null cell (due)
    names = pa.array(["due", "immediate"] + [f"x{i}" for i in range(254)])
    timing = pa.DictionaryArray.from_arrays(pa.array([0, None, 1], pa.uint8()), names)
    narrow = value_book(pa.table({"term": [10.0, 5.0, 3.0], "timing": timing}), CURVE)
    due = [(1 - V**10) / (1 - V), (1 - V**5) / (1 - V), (1 - V**3) / 0.03]
    assert narrow.present_value.tolist() == pytest.approx(due, rel=1e-10)


@pytest.mark.parametrize(
    "content, error, message",
    [
        (b"", InputError, "no header line"),
        (b"id,benefit\nx,1\n", InputError, "no 'term' or 'age' column (columns: id, benefit)"),
        ("id,t\xe9rm\nx,1\n".encode("latin-1"), InputError, "the header line is not UTF-8 text"),
        ("id,term\nx,1\n".encode("utf-16-le"), InputError, "UTF-16 text without a byte-order mark?"),
        # pyarrow decodes a broken row before its handler: it cannot read on (and prints nothing)
        (b"id,term\nx,1\ny\xff,2,3\n", InputError, "fields differs from the header's is not UTF-8 text either"),
        (gzip.compress(b"id,term\n" + b"x,1\n" * 50_000)[:-100], InputError, "not a readable CSV file"),
        (None, TypeError, "a book is a file path"),
    ],
)
def test_unusable_books(tmp_path, content, error, message):
    book = tmp_path / "b.csv"
    if content is not None:
        book.write_bytes(content)
    (tmp_path / "out.parquet").write_bytes(b"earlier")
    with pytest.raises(error, match=re.escape(message)):
        stream_book(book if content is not None else 42, CURVE, tmp_path / "out.parquet")
    # The earlier output stays as it was, and nothing half-written is left beside it.
    assert sorted(p.name for p in tmp_path.iterdir()) == (["b.csv"] if content is not None else []) + ["out.parquet"]
    assert (tmp_path / "out.parquet").read_bytes() == b"earlier"


@pytest.mark.parametrize("earlier", [None, "file", "dataset"])
@pytest.mark.parametrize("completes", [True, False])
def test_an_output_takes_its_place_whole_or_not_at_all(tmp_path, earlier, completes):
    target = tmp_path / "values.parquet"
    if earlier == "file":
        target.write_bytes(b"earlier")
    elif earlier == "dataset":  # a directory, as the Dask path writes, with more parts than the new one
        target.mkdir()
        for part in ("part.0.parquet", "part.1.parquet"):
            (target / part).write_bytes(b"earlier")
    before = {p.relative_to(tmp_path): p.read_bytes() for p in tmp_path.rglob("*") if p.is_file()}
    with pytest.raises(KeyboardInterrupt) if not completes else contextlib.nullcontext():
        with atomic_path(target) as path:
            path.mkdir()
            (path / "part.0.parquet").write_bytes(b"new")
            if not completes:
                raise KeyboardInterrupt
    after = {p.relative_to(tmp_path): p.read_bytes() for p in tmp_path.rglob("*") if p.is_file()}
    assert after == (before if not completes else {Path("values.parquet/part.0.parquet"): b"new"})
    assert [p.name for p in tmp_path.iterdir()] == ([] if earlier is None and not completes else ["values.parquet"])


def test_a_file_output_never_replaces_a_directory(tmp_path):
    """A directory named like an output (another tool's dataset) is refused, not deleted."""
    target = tmp_path / "values.csv"
    target.mkdir()
    (target / "keep.txt").write_text("x")
    with pytest.raises(InputError, match="is a directory"):
        write_table(target, {"a": np.arange(3.0)})
    assert [p.name for p in tmp_path.rglob("*")] == ["values.csv", "keep.txt"]


def test_readme_data_frame_example():
    text = (Path(__file__).resolve().parents[1] / "README.md").read_text(encoding="utf-8")
    (block,) = [b for b in re.findall(r"```python\n(.*?)```", text, re.S) if "frame = values.to_pandas()" in b]
    namespace: dict = {}
    exec(block, namespace)
    values, frame = namespace["values"], namespace["frame"]
    expected = [1000 * (1 - V**10) / (1 - V), 500 * (1 - V**20) / (1 - V) * V**5, math.nan]
    assert values.present_value == pytest.approx(expected, rel=1e-10, nan_ok=True)
    assert frame["error"].isna().tolist() == [True, True, False]


LONG = b"9" * (10 << 20)  # a 10 MB cell: longer than two blocks of the reader
DUE_10, DUE_5 = (1 - V**10) / (1 - V), (1 - V**5) / (1 - V)


@pytest.mark.parametrize(
    "content, rows",
    [
        # Text is UTF-8, or UTF-16 when a byte-order mark says so.
        ("\ufeffid,term\na,10\nb,5\n".encode("utf-16-le"), [("a", DUE_10), ("b", DUE_5)]),
        ("\ufeffid,term\na,10\nb,5\n".encode("utf-16-be"), [("a", DUE_10), ("b", DUE_5)]),
        (b"id,term\na,10\nb\xe9,5\nc,5\n", [("a", DUE_10), ("", "id is not UTF-8 text"), ("c", DUE_5)]),
        (b"id,term\na,10\nb,5\xff\n", [("a", DUE_10), ("b", "term is not UTF-8 text")]),
        (
            b"id,term\na,10\nb," + LONG + b"\nc,5\n",
            [("a", DUE_10), ("b", "term is longer than 65,536 bytes"), ("c", DUE_5)],
        ),
        (b"id,term\nb," + LONG + b"\na,10\n", [("b", "term is longer than 65,536 bytes"), ("a", DUE_10)]),
        (b"id,term\na,10\n" + LONG + b",5\n", [("a", DUE_10), ("", "id is longer than 65,536 bytes")]),
    ],
    ids=["UTF-16LE", "UTF-16BE", "id not UTF-8", "term not UTF-8", "10 MB cell", "10 MB first record", "10 MB id"],
)
def test_undecodable_or_overlong_cells_spoil_their_record_only(tmp_path, batches, content, rows):
    (tmp_path / "b.csv").write_bytes(content)
    result = value_book(tmp_path / "b.csv", CURVE)
    assert list(result.id) == [i for i, _ in rows]
    assert list(result.error) == [e if isinstance(e, str) else None for _, e in rows]
    values = [math.nan if isinstance(e, str) else e for _, e in rows]
    assert result.present_value == pytest.approx(values, rel=1e-10, nan_ok=True)


@pytest.mark.parametrize("as_frame", [False, True])
def test_big_endian_columns_give_the_native_values(as_frame):
    def book(order):
        columns = {"term": np.array([10.0, 20.0], f"{order}f8"), "frequency": np.array([1, 12], f"{order}i8")}
        return pd.DataFrame(columns) if as_frame else columns

    values = value_book(book(">"), CURVE).present_value
    assert values.tolist() == value_book(book("<"), CURVE).present_value.tolist()
    expected = [(1 - V**10) / (1 - V), (1 - V**20) / (12 * (1 - V ** (1 / 12)))]
    assert values == pytest.approx(expected, rel=1e-10)


@pytest.mark.parametrize("start, stop", [(0, 20), (3, 17), (9, 10), (5, 5)])
def test_buffer_conversions_agree_with_pyarrows_own(start, stop):
    """Slices start inside a bitmap byte: offsets are where buffer reading goes wrong."""
    from norvane.portfolio import _arrow

    numbers = pa.array([None if k % 3 == 0 else k / 4 for k in range(20)], pa.float64()).slice(start, stop - start)
    expected = numbers.to_numpy(zero_copy_only=False)
    assert _arrow.floats(numbers) == pytest.approx(expected, nan_ok=True)
    flags = pc.greater(numbers, 2.0)
    assert _arrow.valid(flags).tolist() == pc.is_valid(flags).to_pylist()
    assert _arrow.mask(flags).tolist() == [bool(f) for f in flags.to_pylist()]
    assert _arrow.from_mask(_arrow.mask(flags)).to_pylist() == [bool(f) for f in flags.to_pylist()]
    assert _arrow.from_numbers(expected).to_pylist() == pytest.approx(expected.tolist(), nan_ok=True)
    texts = [None if k % 4 == 1 else "ä" * (k % 3) for k in range(start, stop)]
    present = np.array([text is not None for text in texts], dtype=bool)
    assert _arrow.from_texts([text for text in texts if text is not None], present).to_pylist() == texts


@settings(max_examples=300, deadline=None)
@given(st.lists(st.floats(-1e300, 1e300), max_size=60), st.integers(0, 60))
@example([1e16, 1.0, 1.0, -1e16, 5e-324, 2.5e-308], 1)
def test_a_books_total_is_the_correctly_rounded_sum_whatever_its_batches(values, split):
    from norvane.portfolio._exact import exact_sum

    batches = [np.array(values[:split]), np.array(values[split:])]
    assert float(sum(exact_sum(batch) for batch in batches)) == math.fsum(values)
