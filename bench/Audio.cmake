# Audio benchmarks.
