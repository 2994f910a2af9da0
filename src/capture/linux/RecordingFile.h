#pragma once

#include <QString>

#include <optional>

// The file a recording is written to: created exclusively (a file already under the name is
// never touched) and held open until the recording has ended.
//
// A save folder removed or unmounted while the recording runs takes the file's name with it,
// but not its content: writes through the open descriptor still succeed, and the content would
// die when the descriptor closes. Once the content is complete, keepReachable finds that the
// name no longer leads to this file and puts the content back under its name, making the
// folder again; where that cannot be done, into the home folder. Either way the user is told.
//
// Threads: one at a time.
class RecordingFile {
public:
    // Creates the file; throws fileSystemError where it cannot.
    explicit RecordingFile(QString path);
    ~RecordingFile();
    RecordingFile(const RecordingFile&) = delete;
    RecordingFile& operator=(const RecordingFile&) = delete;

    // Reads and writes the file, whatever happens to its name.
    int descriptor() const { return fd_; }
    const QString& path() const { return path_; }

    // Nothing when the file is still where it was created; otherwise where its content went,
    // for the user. Throws fileSystemError when no folder took the content.
    std::optional<QString> keepReachable();
    // Removes the file, unless its name leads elsewhere by now.
    void discard();

private:
    bool nameLeadsHere() const;
    // Copies the content into a new file at `path`, created exclusively; errno on failure.
    int copyTo(const QString& path) const;

    const QString path_;
    int fd_ = -1;
};
