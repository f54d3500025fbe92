"""Benchmarks: one packet through the stack (micro), and frames through the forwarder beside the
kernel's own (lab). script/bench runs them; docs/performance.md has the figures.
"""
