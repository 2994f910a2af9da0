# X11 benchmarks.
