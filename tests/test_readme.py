"""The README's Python examples run as written."""

import pathlib
import re

README = pathlib.Path(__file__).resolve().parents[1] / "README.md"


def test_readme_python_examples_run():
    blocks = re.findall(r"```python\n(.*?)```", README.read_text(encoding="utf-8"), re.S)
    assert blocks, "the README shows Python examples"
    namespace: dict = {}
    for block in blocks:
        if block.startswith("# (needs a running Dask cluster)"):
            continue  # the Dask tests run that path on a local cluster
        exec(compile(block, str(README), "exec"), namespace)
    # The examples' own claims, checked against closed forms.
    flat, curve = namespace["flat"], namespace["curve"]
    v = 1 / 1.03
    assert abs(flat.ä(n=5) - (1 - v**5) / (1 - v)) < 1e-9
    assert curve.vn(7.5) == curve.vn([7.5])[0]
    assert abs(curve.vn(7.5) - 1.02**-5 * 1.03**-2.5) < 1e-15
    assert namespace["InterestRate"].from_export(namespace["payload"]) == curve
