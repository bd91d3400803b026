"""Life contingencies: mortality tables, fractional-age rules, lives and
pairs of lives, and books of life annuities valued natively.

>>> from norvane.mortality import bundled_table
>>> life = bundled_table("makeham_20_120").life(65)
>>> life.ä(curve, n=10, m=12)  # doctest: +SKIP
"""

from .improvement import GenerationalTable, ImprovementScale
from .laws import BUNDLED_TABLES, MakehamLaw, bundled_table, constant_force, gompertz, makeham
from .lives import JointLife, Life, TwoLives
from .portfolio import life_annuities, life_insurances
from .tables import FractionalAgeLiteral, MortalityTable

__all__ = [
    "BUNDLED_TABLES",
    "FractionalAgeLiteral",
    "GenerationalTable",
    "ImprovementScale",
    "JointLife",
    "Life",
    "MakehamLaw",
    "MortalityTable",
    "TwoLives",
    "bundled_table",
    "constant_force",
    "gompertz",
    "life_annuities",
    "life_insurances",
    "makeham",
]
