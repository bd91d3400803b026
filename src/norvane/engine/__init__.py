"""Annuity valuation engine: calculation modes and their dispatch table."""
