"""Reading and writing recordings, without the library."""

import struct

import numpy as np
import pytest

import kvane


def planes(n, seed):
    # Every sample distinct, so a misplaced channel or plane shows.
    base = np.arange(64 * n, dtype=np.int64).reshape(64, n) * 7 + seed
    return (base - 2**31 + 5).astype(np.int32), (2**31 - 1 - base).astype(np.int32)


def test_records_read_back_as_written(tmp_path):
    path = tmp_path / "two.rec"
    first, second = planes(3, 1), planes(130, 2)
    kvane.write_recording(path, [(*first, 40, b"abc"), (*second, -7, b"")])
    assert path.stat().st_size == (52 + 512 * 3 + 3) + (52 + 512 * 130)
    pings = list(kvane.read_recording(path))
    assert [p.number for p in pings] == [1, 2]
    assert [(p.lc, p.aux, p.sample_count) for p in pings] == [(40, b"abc", 3), (-7, b"", 130)]
    for ping, (plane_i, plane_q) in zip(pings, (first, second)):
        assert ping.plane_i.dtype == np.int32 and ping.plane_i.flags.c_contiguous
        np.testing.assert_array_equal(ping.plane_i, plane_i)
        np.testing.assert_array_equal(ping.plane_q, plane_q)
    (tmp_path / "empty.rec").write_bytes(b"")
    assert list(kvane.read_recording(tmp_path / "empty.rec")) == []


def test_odd_sample_block_splits_at_half_the_block(tmp_path):
    # 1030 bytes: 2 samples per channel, plane Q at byte 515, unaligned.
    block = bytes(range(256)) * 4 + bytes(6)
    head = struct.pack("<4sHIhH24si", b"HEAD", 0, 0, 5, 0, bytes(24), len(block))
    (tmp_path / "odd.rec").write_bytes(head + block + struct.pack("<i", 0) + bytes(2) + b"TAIL")
    (ping,) = kvane.read_recording(tmp_path / "odd.rec")
    assert ping.plane_i.shape == (64, 2) and ping.tail_mark == b"TAIL"
    word = [struct.unpack_from("<i", block, at)[0] for at in (4, 515, 515 + 127 * 4)]
    assert [ping.plane_i[0, 1], ping.plane_q[0, 0], ping.plane_q[63, 1]] == word


def forged(sample_bytes, aux_bytes):
    """A record head claiming the given block lengths, and little behind it."""
    head = struct.pack("<4sHIhH24si", bytes(4), 0, 0, 0, 0, bytes(24), sample_bytes)
    body = bytes(sample_bytes) if 0 <= sample_bytes <= 512 else b""
    return head + body + struct.pack("<i", aux_bytes) + bytes(64)


@pytest.mark.parametrize(
    "second, problem",
    [
        (lambda record: record[:10], "truncated header (got 10 of 42 bytes)"),
        (lambda record: record[: 42 + 1000], "truncated sample block (got 1000 of 1536 bytes)"),
        (lambda record: record[: 42 + 1536 + 4 + 1], "truncated auxiliary block (got 1 of 3 bytes)"),
        (lambda record: record[: 42 + 1536 + 4 + 3 + 5], "truncated tail (got 5 of 6 bytes)"),
        (lambda record: forged(-512, 0), "sample block of -512 bytes"),
        (lambda record: forged(64 * 8000 * 8 + 1, 0), "sample block of 4096001 bytes"),
        (lambda record: forged(512, -1), "auxiliary block of -1 bytes"),
    ],
)
def test_a_broken_record_fails_after_the_complete_pings(tmp_path, second, problem):
    record = kvane.encode_record(*planes(3, 0), aux=b"xyz")
    path = tmp_path / "bad.rec"
    path.write_bytes(record + second(record))
    got = []
    with pytest.raises(kvane.RecordingError) as caught:
        for ping in kvane.read_recording(path):
            got.append(ping.number)
    assert got == [1]
    assert str(caught.value).startswith(f"{path}: record 2: {problem}")


def test_roll_table_of_the_auxiliary_block():
    times = list(range(-50, 1150, 10))  # 120 entries: only 100 fit the block
    aux = b"ROLL" + struct.pack("<ii", 1234, len(times))
    aux += b"".join(struct.pack("<if", t, t / 100.0) for t in times)
    roll = kvane.roll_parameters(aux)
    assert roll["pingTime"] == 1234 and roll["rollCount"] == 100
    assert roll["rollTime"] == times[:100]
    assert roll["rollAngle"][7] == pytest.approx(times[7] / 100.0, rel=1e-7)
    kvane.Params(**roll)  # fits the block as it is
    assert kvane.roll_parameters(b"") is None
    assert kvane.roll_parameters(aux[:20]) is None  # count larger than the block
