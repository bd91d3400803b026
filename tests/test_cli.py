"""The command line, end to end: in-process through main() and once as ``python -m norvane``."""

import csv
import gzip
import json
import math
import re
import signal
import struct
import subprocess
import sys
import time

import numpy as np
import pyarrow as pa
import pyarrow.csv as pa_csv
import pyarrow.parquet as pq
import pytest

from norvane.cli import SAMPLE_PORTFOLIO, main
from norvane.interest_rates import InterestRate

V = 1 / 1.03  # every number below is checked on a constant 3 % curve


def due(n, m=1):
    """Annuity-due of n years, m payments a year of 1/m, at 3 %."""
    return (1 - V**n) / (m * (1 - V ** (1 / m)))


def immediate(n, m=1):
    return (1 - V**n) / (m * (1.03 ** (1 / m) - 1))


COLUMNS = ["id", "term", "deferment", "shift", "frequency", "timing", "growth", "benefit"]

# (record, expected present value): independent closed forms.
VALID = [
    ({"id": "level", "term": "10"}, due(10)),
    (
        {"id": "monthly-imm", "term": "10", "frequency": "12", "timing": "immediate", "benefit": "1200"},
        1200 * immediate(10, 12),
    ),
    ({"id": "perpetuity", "term": "", "benefit": "2"}, 2 / (1 - V)),
    ({"id": "deferred", "term": "20", "deferment": "5", "shift": "2"}, V**3 * due(20)),
    ({"id": "seasoned", "term": "15", "shift": "4", "timing": "Immediate "}, immediate(11)),
    ({"id": "growing", "term": "10", "growth": "0.02"}, (1 - (1.02 * V) ** 10) / (1 - 1.02 * V)),
    ({"id": "quarterly", "term": "5", "frequency": "4", "timing": " due"}, due(5, 4)),
    ({"id": "deferred-perp-imm", "term": "inf", "deferment": "3", "timing": "immediate"}, V**3 * V / (1 - V)),
]
# (record, the message's start): the record is not valued and the others are.
INVALID = [
    ({"id": "neg-term", "term": "-3"}, "term must be"),
    ({"id": "text-term", "term": "abc"}, "term is not a number"),
    ({"id": "nan-term", "term": "nan"}, "term must be"),
    ({"id": "bad-freq", "term": "5", "frequency": "5"}, "frequency must be one of"),
    ({"id": "frac-freq", "term": "5", "frequency": "12.5"}, "frequency must be one of"),
    ({"id": "bad-timing", "term": "5", "timing": "monthly"}, "timing must be"),
    ({"id": "bad-growth", "term": "5", "growth": "-2"}, "growth must be"),
    ({"id": "text-growth", "term": "5", "growth": "2%"}, "growth is not a number"),
    ({"id": "neg-benefit", "term": "5", "benefit": "-1"}, "benefit must be"),
    ({"id": "neg-deferment", "term": "5", "deferment": "-1"}, "deferment must be"),
    ({"id": "text-shift", "term": "5", "shift": "x"}, "shift is not a number"),
]
CASES = VALID[:4] + INVALID[:6] + VALID[4:] + INVALID[6:]  # bad rows between good ones


def write_csv(path, records, columns=COLUMNS):
    opener = gzip.open if path.suffix == ".gz" else open
    with opener(path, "wt", newline="") as out:
        writer = csv.DictWriter(out, columns, restval="")
        writer.writeheader()
        writer.writerows(records)
    return path


def read_output(path):
    if path.suffix == ".parquet":
        table = pq.read_table(path).to_pydict()
        return [dict(zip(table, row)) for row in zip(*table.values())]
    with gzip.open(path, "rt", newline="") if path.suffix == ".gz" else open(path, newline="") as f:
        return list(csv.DictReader(f))


def check_rows(rows, cases):
    assert [r["id"] for r in rows] == [rec["id"] for rec, _ in cases]
    for row, (record, expected) in zip(rows, cases):
        value = float(row["present_value"])
        if isinstance(expected, str):
            assert math.isnan(value), record
            assert row["error"].startswith(expected), (record, row["error"])
        else:
            assert value == pytest.approx(expected, rel=1e-10), record  # rounded to 10 decimals per unit
            assert not row["error"], record


@pytest.mark.parametrize("output", ["out.csv", "out.csv.gz", "out.parquet"])
@pytest.mark.parametrize("source", ["book.csv", "book.csv.gz"])
def test_invalid_records_get_nan_and_a_message_the_rest_closed_forms(tmp_path, capsys, source, output):
    book = write_csv(tmp_path / source, [rec for rec, _ in CASES])
    assert main(["--portfolio", str(book), "--rate", "0.03", "--output", str(tmp_path / output)]) == 0
    check_rows(read_output(tmp_path / output), CASES)
    summary = capsys.readouterr().out
    expected_total = math.fsum(e for _, e in VALID)
    assert re.search(rf"policies\s+{len(CASES)}\n", summary)
    assert re.search(rf"valued\s+{len(VALID)}\n", summary) and re.search(rf"errors\s+{len(INVALID)}\n", summary)
    assert f"total present value  {expected_total:,.2f}" in summary
    assert "constant 3 %" in summary and "first errors (of 11)" in summary


def test_parquet_portfolio_round_trip(tmp_path):
    records = [rec for rec, _ in VALID]

    def column(name, number):  # typed columns with nulls, as a real extract would hold them
        cells = [rec.get(name, "").strip() or None for rec in records]
        return [None if c is None else float(c) if number else c for c in cells]

    table = pa.table({name.upper(): column(name, name not in ("id", "timing")) for name in COLUMNS})
    pq.write_table(table, tmp_path / "book.parquet")
    args = ["--portfolio", str(tmp_path / "book.parquet"), "--rate", "0.03", "--quiet"]
    assert main([*args, "--output", str(tmp_path / "out.parquet")]) == 0
    check_rows(read_output(tmp_path / "out.parquet"), VALID)


@pytest.mark.parametrize(
    "content, message",
    [
        (b"id,term,benefit\nA,10,1\nB,10\nC,5,3\n", "record has 2 fields, the header has 3"),
        (b"id,term,benefit\nA,10,1\nB\xe9,10,1\nC,5,3\n", "id is not UTF-8 text"),
        (b"id,term,benefit\nA,10,1\nB," + b"9" * (10 << 20) + b",1\nC,5,3\n", "term is longer than 65,536 bytes"),
        ("\ufeffid,term,benefit\nA,10,1\nB,-1,1\nC,5,3\n".encode("utf-16"), "term must be >= 0.0 and finite"),
    ],
    ids=["missing field", "not UTF-8", "10 MB record", "UTF-16"],
)
def test_a_bad_record_is_invalid_the_others_valued(tmp_path, content, message):
    book = tmp_path / "book.csv"
    book.write_bytes(content)
    assert main(["--portfolio", str(book), "--rate", "0.03", "--quiet", "--output", str(tmp_path / "o.csv")]) == 0
    rows = read_output(tmp_path / "o.csv")
    assert [float(r["present_value"]) for r in rows[::2]] == pytest.approx([due(10), 3 * due(5)], rel=1e-10)
    assert math.isnan(float(rows[1]["present_value"])) and rows[1]["error"].startswith(message)


def test_bundled_sample_as_a_subprocess(tmp_path):
    run = subprocess.run(
        [sys.executable, "-m", "norvane", "--quiet", "--output", "out.csv"],
        cwd=tmp_path,
        capture_output=True,
        text=True,
        timeout=60,
    )
    assert run.returncode == 0, run.stderr
    assert run.stderr == ""  # no progress bar without a terminal
    with gzip.open(SAMPLE_PORTFOLIO, "rt", newline="") as f:
        ids = [row["id"] for row in csv.DictReader(f)]
    rows = read_output(tmp_path / "out.csv")
    assert len(rows) == len(ids) > 50_000 and [r["id"] for r in rows] == ids
    values = np.array([float(r["present_value"]) for r in rows])
    bad = np.isnan(values)
    assert (bad == np.array([bool(r["error"]) for r in rows])).all()
    assert 0 < bad.sum() < 0.01 * len(rows) and (values[~bad] >= 0).all()
    numbers = re.fullmatch(
        r"([\d,]+) policies, ([\d,]+) valued, ([\d,]+) errors, "
        r"total present value ([\d,.]+)\n",
        run.stdout,
    )
    assert numbers, run.stdout
    policies, valued, errors, total = (float(g.replace(",", "")) for g in numbers.groups())
    assert (policies, valued, errors) == (len(rows), (~bad).sum(), bad.sum())
    assert total == pytest.approx(math.fsum(values[~bad]), abs=0.006)


# A book of valid policies mixing every grouping key of the flows command.
FLOW_BOOK = [
    {"id": "a", "term": "10", "frequency": "12", "benefit": "1200"},
    {"id": "b", "term": "7", "timing": "immediate", "frequency": "4", "benefit": "400"},
    {"id": "c", "term": "12", "deferment": "3", "benefit": "50"},
    {"id": "d", "term": "8", "frequency": "2", "timing": "immediate", "benefit": "10"},
    {"id": "e", "term": "5", "frequency": "12", "timing": "immediate", "benefit": "30"},
]


@pytest.mark.parametrize(
    "mode", ["discrete_precision", "discrete_simplified", "continuous_precision", "continuous_simplified"]
)
@pytest.mark.parametrize(
    "extra",
    [
        [],
        [
            {"id": "p", "term": "", "benefit": "5"},
            {"id": "g", "term": "9", "shift": "2", "growth": "0.03", "benefit": "7"},
        ],
        [  # lives for life, on the default and a named table, one indexed and guaranteed
            {"id": "l", "term": "", "frequency": "12", "benefit": "900", "age": "70.5"},
            {
                "id": "m",
                "term": "",
                "growth": "0.02",
                "benefit": "40",
                "age": "60",
                "table": "makeham_13_110",
                "guarantee": "5",
                "shift": "1",
            },
            {"id": "i", "term": "10", "benefit": "1000", "age": "50", "kind": "insurance"},
        ],
    ],
    ids=["level", "perp-growth", "lives"],
)
def test_flows_total_equals_value_total(tmp_path, capsys, mode, extra):
    columns = COLUMNS + ["age", "table", "guarantee", "kind"]
    book = write_csv(tmp_path / "book.csv", FLOW_BOOK + extra + [{"id": "bad", "term": "-1"}], columns)
    common = ["--portfolio", str(book), "--rate", "0.03", "--mode", mode]
    assert main(["value", *common, "--quiet", "--output", str(tmp_path / "v.csv")]) == 0
    assert main(["flows", *common, "--output", str(tmp_path / "f.csv")]) == 0
    printed = capsys.readouterr().out
    values = [float(r["present_value"]) for r in read_output(tmp_path / "v.csv")]
    flows = read_output(tmp_path / "f.csv")
    pv = math.fsum(float(r["pv_cf"]) for r in flows)
    assert pv == pytest.approx(math.fsum(v for v in values if not math.isnan(v)), rel=1e-6)
    assert re.search(rf"total .* {pv:,.2f}\n", printed) and re.search(r"skipped \(invalid\)\s+1\n", printed)
    # The last payment: deferment 3 + term 12; perpetuities extend the grid to 100 years; the life
    # aged 70.5 can live to the end of its table at 121.
    lives = any("age" in record for record in extra)
    years = 51 if lives else 100 if extra else 15
    assert [int(r["year"]) for r in flows] == list(range(1, years + 1))
    if lives:
        assert "perpetuities" not in printed and re.search(r"of which life-contingent\s+3\n", printed)
    elif not extra:  # level payments from inception: the undiscounted total is benefit x term
        total_cf = math.fsum(float(r["expected_cf"]) for r in flows)
        assert total_cf == pytest.approx(sum(float(p["benefit"]) * float(p["term"]) for p in FLOW_BOOK))
    else:
        assert flows[-1]["expected_cf"] == "inf" and "100+" in printed


@pytest.mark.parametrize("source", ["rate", "file", "bundled"])
def test_curve_report(tmp_path, capsys, source):
    curve = InterestRate(0.03) if source == "rate" else InterestRate(terms=[5, 10], rates=[0.02, 0.03, 0.035])
    args = {"rate": ["--rate", "0.03"], "bundled": []}.get(source)
    if args is None:
        (tmp_path / "c.json").write_text(curve.export("json"))
        args = ["--curve", str(tmp_path / "c.json")]
    assert main(["curve", *args]) == 0
    report = json.loads(capsys.readouterr().out)
    restored = InterestRate.from_export(report["export"])
    if source != "bundled":
        assert restored == curve
    assert report["validation"]["status"] == "valid"
    assert report["analysis"]["key_discount_factors"]["10y"] == pytest.approx(restored.vn(10), rel=1e-15)
    if source == "rate":
        assert restored.vn(10) == pytest.approx(1.03**-10, rel=1e-14)


def png_size(path):
    head = path.read_bytes()[:24]
    assert head[:8] == b"\x89PNG\r\n\x1a\n" and head[12:16] == b"IHDR"
    return struct.unpack(">II", head[16:24])


@pytest.mark.parametrize("command", [["curve", "--horizon", "30"], ["flows"]])
def test_plots_are_written(tmp_path, capsys, command):
    pytest.importorskip("matplotlib")
    book = write_csv(tmp_path / "book.csv", FLOW_BOOK)
    extra = ["--portfolio", str(book)] if command[0] == "flows" else []
    assert main([*command, *extra, "--rate", "0.03", "--plot", str(tmp_path / "p.png")]) == 0
    width, height = png_size(tmp_path / "p.png")
    assert 400 <= width <= 3000 and 300 <= height <= 3000
    assert temporaries(tmp_path) == []  # written beside, under the suffix that sets the format, and moved
    assert "plot written" in capsys.readouterr().out


@pytest.mark.parametrize(
    "args, message",
    [
        (["--portfolio", "{tmp}/missing.csv"], "no such file"),
        (["--curve", "{tmp}/missing.json"], "not a readable curve"),
        (["--curve", "{tmp}/bad.json"], "not a readable curve"),
        (["--portfolio", "{tmp}/noterm.csv"], "no 'term' or 'age' column"),
        (["--portfolio", "{tmp}/latin1.csv"], "the header line is not UTF-8 text"),
        (["--portfolio", "{tmp}/book.csv", "--output", "{tmp}/out.txt"], "must end in"),
        (["flows", "--portfolio", "{tmp}/missing.csv"], "no such file"),
        (["curve", "--curve", "{tmp}/bad.json"], "not a readable curve"),
        (["--rate", "-2"], "--rate"),
        (["--mortality", "nope"], "no bundled table 'nope' (bundled: makeham_20_120, makeham_13_110)"),
        (["--mortality", "M={tmp}/bad.json"], "not a readable mortality table"),
        (["--mortality", "makeham_13_110", "--mortality", "makeham_13_110=x.csv"], "is given twice"),
    ],
)
def test_unusable_input_exits_with_2(tmp_path, capsys, args, message):
    (tmp_path / "bad.json").write_text('{"type": "piecewise", "terms": [5]}')
    write_csv(tmp_path / "noterm.csv", [{"id": "x"}], columns=["id", "benefit"])
    (tmp_path / "latin1.csv").write_bytes("id,t\xe9rm\nx,1\n".encode("latin-1"))
    write_csv(tmp_path / "book.csv", [{"id": "x", "term": "1"}])
    assert main([a.format(tmp=tmp_path) for a in args]) == 2
    assert message in capsys.readouterr().err


def test_missing_plot_library_is_named(tmp_path, capsys, monkeypatch):
    for name in [m for m in sys.modules if m.startswith("matplotlib.")] + ["matplotlib"]:
        monkeypatch.setitem(sys.modules, name, None)  # import now raises ImportError
    assert main(["curve", "--plot", str(tmp_path / "c.png"), "--rate", "0.03"]) == 2
    assert "norvane[plot]" in capsys.readouterr().err


@pytest.mark.parametrize("flag, shown", [(["--progress"], True), (["--no-progress"], False), ([], False)])
@pytest.mark.parametrize("source", ["book.csv", "book.parquet"])
def test_progress_bar(tmp_path, capsys, flag, shown, source):
    book = write_csv(tmp_path / "book.csv", [rec for rec, _ in CASES])
    done = f"{book.stat().st_size}/{book.stat().st_size} "  # bytes of a CSV file, records of a Parquet file
    if source.endswith("parquet"):
        pq.write_table(pa_csv.read_csv(book), tmp_path / source)
        book, done = tmp_path / source, f"{len(CASES)}/{len(CASES)} "
    assert main(["--portfolio", str(book), "--rate", "0.03", "--quiet", *flag]) == 0
    assert (done in capsys.readouterr().err) is shown


def temporaries(directory):
    return [p.name for p in directory.iterdir() if p.name.startswith(".norvane-")]


@pytest.mark.parametrize("output", ["out.csv", "out.csv.gz", "out.parquet"])
@pytest.mark.parametrize("fault", ["no term column", "corrupt part way"])
def test_a_run_that_fails_on_its_input_leaves_the_earlier_output(tmp_path, capsys, output, fault):
    good = write_csv(tmp_path / "good.csv", [rec for rec, _ in CASES])
    out = tmp_path / output
    assert main(["--portfolio", str(good), "--rate", "0.03", "--quiet", "--output", str(out)]) == 0
    earlier = out.read_bytes()
    bad = tmp_path / "bad.parquet"
    pq.write_table(pa.table({"term": np.arange(100_000.0) % 40}), bad, row_group_size=20_000)
    if fault == "corrupt part way":  # found once the first batches are valued and written
        offset = pq.ParquetFile(bad).metadata.row_group(4).column(0).data_page_offset
        with open(bad, "r+b") as f:
            f.seek(offset)
            f.write(b"\xff" * 64)
    else:
        pq.write_table(pa.table({"benefit": [1.0]}), bad)
    assert main(["--portfolio", str(bad), "--rate", "0.03", "--quiet", "--output", str(out)]) == 2
    assert "norvane: error:" in capsys.readouterr().err
    assert out.read_bytes() == earlier and temporaries(tmp_path) == []


@pytest.mark.parametrize("output", ["out.csv", "out.parquet"])
def test_sigterm_mid_write_leaves_the_earlier_output(tmp_path, output):
    book = tmp_path / "book.csv"
    book.write_bytes(b"id,term\n" + b"p,10\n" * 2_000_000)  # seconds of work: SIGTERM comes mid-write
    out = tmp_path / output
    out.write_bytes(b"the earlier output")
    run = subprocess.Popen(
        [sys.executable, "-m", "norvane", "--portfolio", str(book), "--rate", "0.03", "--output", str(out)],
        stdout=subprocess.DEVNULL,
        stderr=subprocess.PIPE,
        text=True,
    )
    deadline = time.monotonic() + 30
    while not any((tmp_path / name).stat().st_size for name in temporaries(tmp_path)):
        assert run.poll() is None and time.monotonic() < deadline, "the run never wrote"
        time.sleep(0.005)
    run.send_signal(signal.SIGTERM)
    _, err = run.communicate(timeout=30)
    assert run.returncode == 128 + signal.SIGTERM and err == "norvane: terminated\n"
    assert out.read_bytes() == b"the earlier output" and temporaries(tmp_path) == []


def test_help_lists_commands_and_policy_columns(capsys):
    assert main(["--help"]) == 0
    text = capsys.readouterr().out
    assert all(word in text for word in ("value", "curve", "flows", "perpetuity", "deferment", "growth"))


MARKET = "maturity,value,scenario\n1,0.02,base\n2,0.024,base\n5,0.03,base\n1,0.03,up\n2,0.034,up\n5,0.04,up\n"


@pytest.mark.parametrize(
    "kind, extra, price",
    [
        ("zero", [], lambda t, r: (1 + r) ** -t),
        ("zero", ["--compounding", "continuous"], lambda t, r: np.exp(-r * t)),
        ("smith-wilson", ["--ufr", "0.042"], lambda t, r: (1 + r) ** -t),
    ],
)
def test_curve_build_writes_a_curve_through_its_inputs(tmp_path, kind, extra, price):
    (tmp_path / "market.csv").write_text(MARKET)
    out = tmp_path / "curve.json"
    args = ["curve", "build", str(tmp_path / "market.csv"), "--output", str(out), "--kind", kind, *extra]
    assert main([*args, "--plot", str(tmp_path / "rates.png")]) == 0
    curve = InterestRate.from_export(out.read_text())
    assert list(curve.scenarios) == ["base", "up"] and (tmp_path / "rates.png").stat().st_size > 0
    t = np.array([1.0, 2.0, 5.0])
    for name, rates in (("base", [0.02, 0.024, 0.03]), ("up", [0.03, 0.034, 0.04])):
        curve.active_scenario = name
        # The export keeps six decimals of each segment's rate: the inputs to about 1e-6 a year.
        assert (np.abs(curve.vn(t) / price(t, np.array(rates)) - 1) <= 1e-6 * t).all()


@pytest.mark.parametrize(
    "text, extra, message",
    [
        ("maturity,rate\n1,0.02\n", [], "needs the columns 'maturity' and 'value'"),
        ("maturity,value\n1,abc\n", [], "'maturity' and 'value' must hold numbers"),
        ("maturity,value\n2,0.02\n1,0.03\n", [], "'maturities' must be finite, > 0 and increasing"),
        ("maturity,value,scenario\n1,0.02,a\n2,0.02,b\n", [], "every scenario must give the same maturities"),
        ("maturity,value\n1,0.02\n", ["--kind", "smith-wilson"], "needs --ufr"),
    ],
)
def test_curve_build_refuses_unusable_inputs(tmp_path, capsys, text, extra, message):
    (tmp_path / "market.csv").write_text(text)
    out = tmp_path / "curve.json"
    assert main(["curve", "build", str(tmp_path / "market.csv"), "--output", str(out), *extra]) == 2
    assert message in capsys.readouterr().err and not out.exists()


def test_value_risk_is_the_difference_of_two_revaluations(tmp_path, capsys):
    from norvane.portfolio import value_book

    records = FLOW_BOOK + [{"id": "life", "term": "", "frequency": "12", "benefit": "900", "age": "70"}]
    book = write_csv(tmp_path / "book.csv", records, COLUMNS + ["age"])
    assert main(["value", "--portfolio", str(book), "--rate", "0.03", "--risk", "--key-tenors", "2,5,10"]) == 0
    printed = capsys.readouterr().out
    shown = {
        k.strip(): float(v.replace(",", ""))
        for k, v in re.findall(r"\n  ((?:DV01|key-rate DV01 \w+))\s+(\S+)", printed)
    }
    h = 1e-6
    down, up = (value_book(book, InterestRate(0.03 + s)).present_value.sum() for s in (-h, h))
    # On a flat curve the annual zero rate is the rate: the DV01 is the rate's.
    assert shown["DV01"] == pytest.approx((down - up) / (2 * h) * 1e-4, abs=0.01)
    assert sum(shown[f"key-rate DV01 {t}y"] for t in (2, 5, 10)) == pytest.approx(shown["DV01"], abs=0.02)


def test_risk_columns_are_each_records_sensitivities(tmp_path):
    records = [
        {"id": "level", "term": "25", "timing": "immediate", "benefit": "100"},
        {"id": "life", "term": "", "benefit": "100", "age": "90", "table": "makeham_20_120"},
        {"id": "bad", "term": "-1"},
    ]
    book = write_csv(tmp_path / "book.csv", records, COLUMNS + ["age", "table"])
    out = tmp_path / "values.csv"
    command = ["value", "--portfolio", str(book), "--rate", "0.04", "--quiet", "--output", str(out)]
    assert main([*command, "--risk-columns", "--key-tenors", "5,10,20"]) == 0
    rows = {r["id"]: r for r in read_output(out)}
    v = 1 / 1.04
    a_n = (1 - v**25) / 0.04
    increasing = ((1 - v**25) / (0.04 * v) - 25 * v**25) / 0.04  # (Ia)_25
    level = {k: float(x) for k, x in rows["level"].items() if k not in ("id", "error")}
    assert level["macaulay_duration"] == pytest.approx(increasing / a_n, rel=1e-12)
    # On a flat curve the zero rate is the rate: modified = Macaulay v, DV01 = modified PV 1 bp.
    assert level["modified_duration"] == pytest.approx(increasing / a_n * v, rel=1e-12)
    assert level["dv01"] == pytest.approx(increasing * v * 100 * 1e-4, rel=1e-12)
    key_rates = [level[f"key_rate_dv01_{t}y"] for t in (5, 10, 20)]
    assert sum(key_rates) == pytest.approx(level["dv01"], rel=1e-12) and min(key_rates) > 0
    from norvane.mortality import bundled_table

    survival = bundled_table("makeham_20_120").tpx(90, np.arange(31.0))  # the table ends at 121
    weights = survival * v ** np.arange(31.0)
    assert float(rows["life"]["macaulay_duration"]) == pytest.approx(
        (np.arange(31) * weights).sum() / weights.sum(), rel=1e-10
    )
    assert rows["bad"]["macaulay_duration"] in ("", "nan")


def test_flows_split_by_a_column_of_the_book(tmp_path, capsys):
    records = [
        {"id": "a", "term": "10", "benefit": "100", "product": "A"},
        {"id": "b", "term": "5", "benefit": "50", "product": "B"},
        {"id": "c", "term": "", "benefit": "70", "age": "65", "product": "A"},
        {"id": "d", "term": "3", "benefit": "10", "product": ""},
    ]
    book = write_csv(tmp_path / "book.csv", records, ["id", "term", "benefit", "product", "age"])
    out = tmp_path / "flows.csv"
    common = ["--portfolio", str(book), "--rate", "0.03"]
    assert main(["flows", *common, "--by", "product", "--output", str(out)]) == 0
    assert main(["value", *common, "--quiet", "--output", str(tmp_path / "v.csv")]) == 0
    values = {r["id"]: float(r["present_value"]) for r in read_output(tmp_path / "v.csv")}
    rows = read_output(out)
    by = {}
    for r in rows:
        by[r["product"]] = by.get(r["product"], 0.0) + float(r["discounted"])
    v = 1 / 1.03
    assert by["B"] == pytest.approx(50 * (1 - v**5) / (1 - v), rel=1e-12)
    assert by["A"] == pytest.approx(values["a"] + values["c"], rel=1e-10)
    assert by[""] == pytest.approx(10 * (1 - v**3) / (1 - v), rel=1e-12)  # a missing cell is its own group
    assert main(["flows", *common, "--by", "channel"]) == 2
    assert "no 'channel' column" in capsys.readouterr().err
