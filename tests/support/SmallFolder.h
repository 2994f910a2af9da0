#pragma once

#include <QFile>
#include <QTemporaryDir>

#include <sys/mount.h>

// A folder on a file system of its own that holds only `kilobytes`: a disk that fills up.
// Mounting needs CAP_SYS_ADMIN; isSmall() says whether it worked.
class SmallFolder {
public:
    explicit SmallFolder(int kilobytes) {
        const QByteArray options = "size=" + QByteArray::number(kilobytes) + "k";
        mounted_ = ::mount("tessarel-small", QFile::encodeName(path_.path()).constData(), "tmpfs",
                           0, options.constData()) == 0;
    }
    ~SmallFolder() {
        if (mounted_) {
            ::umount2(QFile::encodeName(path_.path()).constData(), MNT_DETACH);
        }
    }
    SmallFolder(const SmallFolder&) = delete;
    SmallFolder& operator=(const SmallFolder&) = delete;

    // Unmounts the file system lazily, as `umount -l` does: files still open keep it alive,
    // but no name leads to them any more.
    bool detach() {
        return ::umount2(QFile::encodeName(path_.path()).constData(), MNT_DETACH) == 0;
    }

    QString path() const { return path_.path(); }
    bool isSmall() const { return mounted_; }

private:
    QTemporaryDir path_;
    bool mounted_ = false;
};
