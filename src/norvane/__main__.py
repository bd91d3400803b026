"""``python -m norvane`` and the ``norvane`` script: the command line of :mod:`norvane.cli`."""

from __future__ import annotations

from .cli import main

if __name__ == "__main__":
    raise SystemExit(main())
