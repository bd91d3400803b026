"""Fixed-width Arrow arrays to and from NumPy through their buffers.

pyarrow's own conversions (``Array.to_numpy``, ``pa.array``, ``pa.scalar``) import pandas on
their first use, to recognise pandas objects: a fifth of a short command-line run that never
sees a data frame. Number and mask columns are plain buffers that NumPy reads and writes
directly, so the book's common path converts them here.
"""

from __future__ import annotations

from collections.abc import Iterable

import numpy as np
import pyarrow as pa
import pyarrow.compute as pc
from numpy.typing import NDArray


def _bits(buffer: pa.Buffer, offset: int, count: int) -> NDArray[np.bool_]:
    """An Arrow bitmap (least significant bit first) as a bool array."""
    packed = np.frombuffer(buffer, dtype=np.uint8)
    return np.unpackbits(packed, count=offset + count, bitorder="little")[offset:].view(bool)


def valid(array: pa.Array) -> NDArray[np.bool_]:
    """The cells that are not null."""
    if array.null_count == 0:
        return np.ones(len(array), dtype=bool)
    validity = array.buffers()[0]
    if validity is None:  # arrays of the null type (a column of None only) have no bitmap
        return mask(pc.is_valid(array))
    return _bits(validity, array.offset, len(array))


def mask(array: pa.Array) -> NDArray[np.bool_]:
    """A boolean array as a NumPy mask, null as False."""
    values = _bits(array.buffers()[1], array.offset, len(array))
    return values & valid(array)


def numbers(array: pa.Array) -> np.ndarray:
    """An integer or float array as a writable NumPy copy; nulls hold unspecified values
    (see :func:`valid`)."""
    if not (pa.types.is_integer(array.type) or pa.types.is_floating(array.type)):
        raise TypeError(f"expected an Arrow array of integers or floats, got {array.type}")
    kind = np.dtype(array.type.to_pandas_dtype())
    data = array.buffers()[1]
    copied: np.ndarray = np.frombuffer(data, dtype=kind, count=len(array), offset=array.offset * kind.itemsize).copy()
    return copied


def floats(array: pa.Array) -> np.ndarray:
    """A float64 array as NumPy, NaN for nulls."""
    values = numbers(array)
    values[~valid(array)] = np.nan
    return values


def from_numbers(values: np.ndarray) -> pa.Array:
    """A one-dimensional NumPy number array as an Arrow array without nulls (a copy when not
    contiguous)."""
    values = np.ascontiguousarray(values)
    return pa.Array.from_buffers(pa.from_numpy_dtype(values.dtype), len(values), [None, pa.py_buffer(values)])


def from_mask(values: np.ndarray) -> pa.Array:
    """A NumPy bool array as an Arrow boolean array without nulls."""
    return pa.Array.from_buffers(pa.bool_(), len(values), [None, pa.py_buffer(np.packbits(values, bitorder="little"))])


def from_texts(texts: Iterable[str], present: np.ndarray) -> pa.Array:
    """Texts at the cells where ``present`` is True, null elsewhere, as an Arrow string array."""
    if not present.any():
        return pa.nulls(len(present), pa.string())
    encoded = [text.encode() for text in texts]
    lengths = np.zeros(len(present), dtype=np.int64)
    lengths[present] = [len(text) for text in encoded]
    offsets = np.concatenate([[0], np.cumsum(lengths)]).astype(np.int32)
    validity = np.packbits(present, bitorder="little")
    buffers = [pa.py_buffer(validity), pa.py_buffer(offsets), pa.py_buffer(b"".join(encoded))]
    return pa.Array.from_buffers(pa.string(), len(present), buffers)
