"""The ctypes blocks against the C header (whose fixed layout test_interface
pins), and the checks on parameters."""

import ctypes
import math
import shutil
import subprocess

import pytest

import kvane
from conftest import SOURCE_DIR


def test_every_field_matches_a_c_compiler(tmp_path):
    compiler = shutil.which("cc") or shutil.which("gcc")
    if compiler is None:
        pytest.skip("no C compiler to read the header with")
    lines = ['#include <stdio.h>', '#include <stddef.h>', '#include "kVane.h"', "int main(void) {"]
    expected = []
    for block in (kvane.KVaneParams, kvane.KVaneResult, kvane.KVaneInput):
        lines.append(f'printf("%zu\\n", sizeof({block.__name__}));')
        expected.append(ctypes.sizeof(block))
        for name, _ in block._fields_:
            lines.append(f'printf("%zu\\n", offsetof({block.__name__}, {name}));')
            expected.append(getattr(block, name).offset)
    lines += ["return 0;", "}"]
    source = tmp_path / "layout.c"
    source.write_text("\n".join(lines))
    program = tmp_path / "layout"
    subprocess.run([compiler, "-I", str(SOURCE_DIR / "include"), str(source), "-o", str(program)], check=True)
    printed = subprocess.run([str(program)], check=True, capture_output=True, text=True).stdout
    assert [int(v) for v in printed.split()] == expected


@pytest.mark.parametrize(
    "values, error",
    [
        ({"limitMode": 300}, ValueError),
        ({"beamCount": 256.0}, TypeError),
        ({"beamCount": 257}, ValueError),
        ({"sideScanRows": 2**31}, ValueError),
        ({"soundSpeed": "1500"}, TypeError),
        ({"soundSpeed": 1e39}, ValueError),
        ({"rollAngle": [0.0] * 101}, ValueError),
        ({"rollTime": [1, 2.5]}, TypeError),
        ({"beamcount": 256}, TypeError),
    ],
)
def test_values_the_block_cannot_hold_are_refused(values, error):
    with pytest.raises(error) as caught:
        kvane.Params(**values)
    assert list(values)[0] in str(caught.value)


def test_edge_values_are_held_as_the_field_type_holds_them():
    params = kvane.Params(limitMode=-128, beamSpacing=127, beamCount=1, soundSpeed=float("nan"),
                          rollTime=[-(2**31), 2**31 - 1], rollAngle=[0.1])
    with pytest.raises(TypeError):  # a refused table leaves the old one
        params.rollTime = [3, "x"]
    assert (params.limitMode, params.beamSpacing, params.beamCount) == (-128, 127, 1)
    assert math.isnan(params.soundSpeed)
    assert params.rollTime[:2] == [-(2**31), 2**31 - 1]
    assert params.rollAngle[0] == pytest.approx(0.1, rel=1e-7) and params.rollAngle[0] != 0.1

