# App benchmarks.
