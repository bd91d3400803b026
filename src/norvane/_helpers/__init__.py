"""Private modules behind ``norvane.helpers``, one per concern.

Import names through ``norvane.helpers``: the layout of this package may change.
"""
