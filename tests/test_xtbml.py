"""MortalityTable.from_xtbml on small XTbML files written here, against the q written into them."""

import math

import numpy as np
import pytest

from norvane.mortality import MortalityTable

ULTIMATE = {60: 0.1, 61: 0.2, 62: 0.3, 63: 0.4, 64: 0.5, 65: 1.0}
SELECT = {60: [0.01, 0.02], 61: [0.03]}  # select age 61's row ends early: the ultimate at 62 fills it


def ys(values, scale=1.0):
    return "".join(f'<Y t="{t}">{q * scale:g}</Y>' for t, q in values.items())


def table(values, scaling=None, axis=""):
    factor = "" if scaling is None else f"<ScalingFactor>{scaling}</ScalingFactor>"
    return f"<Table><MetaData>{factor}{axis}</MetaData><Values>{values}</Values></Table>"


def ultimate(values=ULTIMATE, scaling=None, scale=1.0):
    return table(f"<Axis>{ys(values, scale)}</Axis>", scaling)


def select(rows=SELECT):
    durations = "<AxisDef><AxisName>Duration</AxisName><MinScaleValue>1</MinScaleValue><MaxScaleValue>2</MaxScaleValue></AxisDef>"
    axes = "".join(f'<Axis t="{s}"><Axis>{ys(dict(enumerate(q, 1)))}</Axis></Axis>' for s, q in rows.items())
    return table(axes, axis="<AxisDef><AxisName>Age</AxisName></AxisDef>" + durations)


def doc(*tables):
    return f'<?xml version="1.0"?><XTbML xmlns="urn:xtbml-test"><ContentClassification/>{"".join(tables)}</XTbML>'


def load(tmp_path, text, **kwargs):
    path = tmp_path / "table.xml"
    path.write_text(text)
    return MortalityTable.from_xtbml(path, **kwargs)


@pytest.mark.parametrize("scaling, scale", [(None, 1), ("0", 1), ("3", 1000), ("2", 100)])
def test_ultimate_q_by_age_and_scaling_factor(tmp_path, scaling, scale):
    found = load(tmp_path, doc(ultimate(scaling=scaling, scale=scale)))
    assert (found.first_age, found.last_age, found.select_period) == (60, 65, 0)
    np.testing.assert_allclose(found.qx, list(ULTIMATE.values()), rtol=1e-15)


@pytest.mark.parametrize("first_ultimate", [60, 62])  # 62: the ultimate starts where the first select period ends
@pytest.mark.parametrize("ultimate_first_in_file", [False, True])
def test_select_life_survives_by_the_written_rates(tmp_path, first_ultimate, ultimate_first_in_file):
    parts = [select(), ultimate({a: q for a, q in ULTIMATE.items() if a >= first_ultimate})]
    found = load(tmp_path, doc(*(parts[::-1] if ultimate_first_in_file else parts)))
    assert found.select_period == 2
    for s, rates in [(60, [0.01, 0.02, 0.3, 0.4, 0.5]), (61, [0.03, 0.3, 0.4, 0.5])]:
        for t in range(1, len(rates) + 1):
            expected = math.prod(1 - q for q in rates[:t])
            assert found.tpx(s, t, select_age=s) == pytest.approx(expected, rel=1e-12, abs=1e-15), (s, t)


def test_table_picks_among_several(tmp_path):
    text = doc(ultimate(), ultimate({60: 0.25, 61: 1.0}))
    with pytest.raises(ValueError, match=r"holds 2 tables \(0: ultimate, ages 60 to 65; 1: ultimate, ages 60 to 61\)"):
        load(tmp_path, text)
    assert load(tmp_path, text, table=1).qx.tolist() == [0.25, 1.0]
    with pytest.raises(ValueError, match=r"table=\(0, 1\) must name a select table and then an ultimate table"):
        load(tmp_path, text, table=(0, 1))


@pytest.mark.parametrize(
    "content, message",
    [
        ("<XTbML><Table>", "cannot read .* as XML"),
        ('<?xml version="1.0"?><Tables xmlns="urn:x"/>', "root element is 'Tables', not 'XTbML'"),
        (doc(), "has no Table"),
        (doc(ultimate({60: 0.1, 61: 0.2, 63: 1.0})), "table 0 has no value for age 62"),
        (
            doc(ultimate({60: 0.1, 61: 0.2, 62: 1.0})).replace(">0.2<", ">0.2x<"),
            r"table 0 at age 61: value '0.2x' is not a number",
        ),
        (doc(ultimate({60: 0.1, 61: 0.2, 62: 1.0})).replace(">0.2<", "><"), r"at age 61: value '' is not a number"),
        (
            doc(ultimate({60: 0.1, 61: 0.2, 62: 1.0})).replace(">0.2<", ">NaN<"),
            r"at age 61: value 'NaN' is not a number",
        ),
        (doc(ultimate(scaling="milli")), "ScalingFactor must be a whole number, got 'milli'"),
        (doc(select()), r"holds 1 table \(0: select, ages 60 to 61, 2 durations"),
        (
            doc(select(), ultimate({60: 0.1, 61: 0.2, 62: 1.0})),
            "select age 61 with a 2-year select period runs past the ultimate table's last age 62",
        ),
    ],
)
def test_malformed_files_are_refused_by_name(tmp_path, content, message):
    with pytest.raises(ValueError, match=r"^\[MortalityTable.from_xtbml\] .*" + message):
        load(tmp_path, content)
