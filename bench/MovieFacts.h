#pragma once

#include <QString>

// What ffprobe reads from a recorded movie, and its size on disk.
struct MovieFacts {
    long long frames = 0;
    double duration = 0; // seconds
    qint64 bytes = 0;
};

// Fills `facts` from the movie at `path` (decoding it to count its frames).
void probeMovieInto(MovieFacts& facts, const QString& path);
