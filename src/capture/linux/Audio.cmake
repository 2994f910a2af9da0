# PulseAudio stream, FFmpeg audio file writer, application resources (lame).
