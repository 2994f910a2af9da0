#pragma once

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>

// A folder that refuses new files, for real: a read-only directory, or for root (whom file
// modes do not stop) a read-only file system mounted there. Mounting needs CAP_SYS_ADMIN;
// isReadOnly() says whether the folder really refuses.
class ReadOnlyFolder {
public:
    ReadOnlyFolder() {
        const QByteArray path = QFile::encodeName(path_.path());
        if (::geteuid() == 0) {
            mounted_ = ::mount("tessarel-read-only", path.constData(), "tmpfs", MS_RDONLY,
                               "size=64k") == 0;
        } else {
            QFile::setPermissions(path_.path(), QFileDevice::ReadOwner | QFileDevice::ExeOwner);
        }
    }
    ~ReadOnlyFolder() {
        if (mounted_) {
            ::umount2(QFile::encodeName(path_.path()).constData(), MNT_DETACH);
        }
        QFile::setPermissions(path_.path(), QFileDevice::ReadOwner | QFileDevice::WriteOwner |
                                                QFileDevice::ExeOwner);
    }
    ReadOnlyFolder(const ReadOnlyFolder&) = delete;
    ReadOnlyFolder& operator=(const ReadOnlyFolder&) = delete;

    QString path() const { return path_.path(); }
    bool isReadOnly() const { return ::access(QFile::encodeName(path()).constData(), W_OK) != 0; }
    // The system's own words for a file refused here ("Permission denied", "Read-only file
    // system").
    QString refusal() const {
        const QByteArray probe = QFile::encodeName(QDir(path()).filePath("probe"));
        const int fd = ::open(probe.constData(), O_WRONLY | O_CREAT | O_EXCL, 0666);
        if (fd >= 0) {
            ::close(fd);
            ::unlink(probe.constData());
            return {};
        }
        return QString::fromLocal8Bit(std::strerror(errno));
    }
    bool isEmpty() const {
        return QDir(path())
            .entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System)
            .isEmpty();
    }

private:
    QTemporaryDir path_;
    bool mounted_ = false;
};
