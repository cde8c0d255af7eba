"""The mock recording written the way a scientist would without quarvel: numpy and h5py.

Usage: reference_writer.py FILE BYTES

Makes the same dataset as quarvel --conf=mock (big-endian int32, chunks of 4096 values, gzip
level 6) and fills it in slices of 128 KiB, each generated from the recorder's counter and
decoded with numpy. Prints "seconds=S" for the work from creating the file to closing it,
without the interpreter's start and imports.
"""

import sys
import time

import h5py
import numpy as np

SLICE_VALUES = 32768  # 128 KiB of int32
CHUNK_VALUES = 4096


def decode_tavo(counter):
    """Tavo ADC sample of each little-endian counter word: first two bytes big-endian, >> 2."""
    big_endian = ((counter & 0xFF) << 8) | ((counter >> 8) & 0xFF)
    return (big_endian.astype(np.uint16).view(np.int16) >> 2).astype(np.int32)


def main():
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    path, nbytes = sys.argv[1], int(sys.argv[2])
    if nbytes % 4 or nbytes < 4 * CHUNK_VALUES:
        sys.exit("BYTES must be a multiple of 4 and at least 16 KiB")
    values = nbytes // 4

    start = time.perf_counter()
    with h5py.File(path, "w") as f:
        dataset = f.create_dataset("quarvel", shape=(values,), dtype=">i4",
                                   chunks=(CHUNK_VALUES,), compression="gzip",
                                   compression_opts=6)
        for first in range(0, values, SLICE_VALUES):
            last = min(first + SLICE_VALUES, values)
            dataset[first:last] = decode_tavo(np.arange(first, last, dtype=np.uint32))
    print(f"seconds={time.perf_counter() - start:.6f}")


if __name__ == "__main__":
    main()
