# X11 integration tests (Xvfb).
