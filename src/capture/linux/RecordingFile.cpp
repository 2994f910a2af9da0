#include "capture/linux/RecordingFile.h"

#include "capture/CaptureVocabulary.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

namespace {

constexpr size_t kCopyChunkBytes = 1 << 20;
// Names tried in the home folder before giving up: "name", "name (2)", ...
constexpr int kHomeNamesTried = 1000;

int createExclusively(const QString& path) {
    return ::open(QFile::encodeName(path).constData(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
}

bool writeAll(int fd, const char* bytes, size_t size) {
    while (size > 0) {
        const ssize_t written = ::write(fd, bytes, size);
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        bytes += written;
        size -= static_cast<size_t>(written);
    }
    return true;
}

QString reason(int code) {
    return QString::fromLocal8Bit(std::strerror(code));
}

} // namespace

RecordingFile::RecordingFile(QString path) : path_(std::move(path)) {
    fd_ = createExclusively(path_);
    if (fd_ < 0) {
        throw fileSystemError(path_, errno);
    }
}

RecordingFile::~RecordingFile() {
    ::close(fd_);
}

bool RecordingFile::nameLeadsHere() const {
    struct stat named {};
    struct stat held {};
    return ::stat(QFile::encodeName(path_).constData(), &named) == 0 && ::fstat(fd_, &held) == 0 &&
           named.st_dev == held.st_dev && named.st_ino == held.st_ino;
}

std::optional<QString> RecordingFile::keepReachable() {
    if (nameLeadsHere()) {
        return std::nullopt;
    }
    const QFileInfo file(path_);
    const QString folder = QDir::toNativeSeparators(file.absolutePath());
    errno = 0;
    int refusal = QDir().mkpath(file.absolutePath()) ? copyTo(path_) : (errno ? errno : ENOTDIR);
    if (refusal == 0) {
        return folderMadeAgainNotice(path_);
    }
    const QString homeFile = QDir::home().filePath(file.fileName());
    for (int number = 1; number <= kHomeNamesTried; ++number) {
        const QString elsewhere = numberedPath(homeFile, number);
        const int homeRefusal = copyTo(elsewhere);
        if (homeRefusal == 0) {
            return QStringLiteral("The folder “%1” went away during the recording and could not "
                                  "be made again (%2). Tessarel saved the recording as “%3” "
                                  "instead.")
                .arg(folder, reason(refusal), QDir::toNativeSeparators(elsewhere));
        }
        if (homeRefusal != EEXIST) {
            refusal = homeRefusal;
            break;
        }
    }
    throw fileSystemError(path_, QStringLiteral("The folder went away during the recording, and "
                                                "the home folder refused the recording too (%1)")
                                     .arg(reason(refusal)));
}

int RecordingFile::copyTo(const QString& path) const {
    const int to = createExclusively(path);
    if (to < 0) {
        return errno;
    }
    std::vector<char> chunk(kCopyChunkBytes);
    off_t offset = 0;
    int error = 0;
    for (;;) {
        const ssize_t got = ::pread(fd_, chunk.data(), chunk.size(), offset);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0 || (got > 0 && !writeAll(to, chunk.data(), static_cast<size_t>(got)))) {
            error = errno;
            break;
        }
        if (got == 0) {
            break;
        }
        offset += got;
    }
    if (::close(to) != 0 && error == 0) {
        error = errno;
    }
    if (error != 0) {
        ::unlink(QFile::encodeName(path).constData());
    }
    return error;
}

void RecordingFile::discard() {
    if (nameLeadsHere()) {
        ::unlink(QFile::encodeName(path_).constData());
    }
}
