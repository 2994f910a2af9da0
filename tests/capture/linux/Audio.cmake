# Audio integration tests (PulseAudio null sink, FFmpeg, lame).
