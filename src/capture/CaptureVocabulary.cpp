#include "capture/CaptureVocabulary.h"

#include <QDir>
#include <QFileInfo>

#include <cstring>
#include <system_error>

namespace {

// Exact, case-sensitive match against the raw values.
template <typename Format> std::optional<Format> formatWithRawValue(const QString& rawValue) {
    for (Format format : Format::allCases()) {
        if (format.rawValue() == rawValue) {
            return format;
        }
    }
    return std::nullopt;
}

} // namespace

std::optional<AudioExportFormat> AudioExportFormat::fromRawValue(const QString& rawValue) {
    return formatWithRawValue<AudioExportFormat>(rawValue);
}

QString AudioExportFormat::rawValue() const {
    switch (value_) {
    case m4a:
        return QStringLiteral("M4A");
    case mp3:
        return QStringLiteral("MP3");
    case wav:
        return QStringLiteral("WAV");
    }
    return {};
}

QString AudioExportFormat::fileExtension() const {
    return rawValue().toLower();
}

std::optional<SnapshotExportFormat> SnapshotExportFormat::fromRawValue(const QString& rawValue) {
    return formatWithRawValue<SnapshotExportFormat>(rawValue);
}

QString SnapshotExportFormat::rawValue() const {
    switch (value_) {
    case png:
        return QStringLiteral("PNG");
    case jpeg:
        return QStringLiteral("JPEG");
    case pdf:
        return QStringLiteral("PDF");
    }
    return {};
}

QString SnapshotExportFormat::fileExtension() const {
    return value_ == jpeg ? QStringLiteral("jpg") : rawValue().toLower();
}

QString localizedDescription(const std::exception_ptr& error) {
    try {
        std::rethrow_exception(error);
    } catch (const CaptureEngineError& e) {
        return QString::fromUtf8(e.what());
    } catch (const PlatformError& e) {
        return QString::fromUtf8(e.what());
    } catch (...) {
        return kUnexpectedFailure;
    }
}

PlatformError fileSystemError(const QString& path, const QString& reason) {
    const QFileInfo file(path);
    return PlatformError(
        QStringLiteral("Tessarel could not save “%1” in the folder “%2”: %3")
            .arg(file.fileName(), QDir::toNativeSeparators(file.absolutePath()), reason));
}

PlatformError fileSystemError(const QString& path, int code) {
    return fileSystemError(path, QString::fromLocal8Bit(std::strerror(code)));
}

QString numberedPath(const QString& path, int number) {
    if (number <= 1) {
        return path;
    }
    const QFileInfo file(path);
    return file.path() + QLatin1Char('/') + file.completeBaseName() +
           QStringLiteral(" (%1).").arg(number) + file.suffix();
}

QString folderMadeAgainNotice(const QString& path) {
    const QFileInfo file(path);
    return QStringLiteral("The folder “%1” went away during the recording. Tessarel made it "
                          "again and saved “%2” in it.")
        .arg(QDir::toNativeSeparators(file.absolutePath()), file.fileName());
}

void rethrowExplained() {
    try {
        throw;
    } catch (const std::system_error& refused) {
        throw PlatformError(
            QStringLiteral("Tessarel could not start the capture: the system refused it (%1).")
                .arg(QString::fromLocal8Bit(refused.code().message().c_str())));
    }
}

CaptureEngineError::CaptureEngineError(Code code, const QString& detail)
    : code_(code), detail_(detail), description_(errorDescription().toStdString()) {}

CaptureEngineError CaptureEngineError::cannotCreateWriter(const QString& detail) {
    return {Code::cannotCreateWriter, detail};
}

CaptureEngineError CaptureEngineError::cannotEncode(const QString& detail) {
    return {Code::cannotEncode, detail};
}

CaptureEngineError CaptureEngineError::noDisplay() {
    return {Code::noDisplay, {}};
}

QString CaptureEngineError::errorDescription() const {
    switch (code_) {
    case Code::cannotCreateWriter:
        return QStringLiteral("The recording could not start: ") + detail_;
    case Code::cannotEncode:
        return QStringLiteral("The capture could not be saved: ") + detail_;
    case Code::noDisplay:
        return QStringLiteral("Tessarel could not find a display to capture.");
    }
    return {};
}

PlatformError::PlatformError(const QString& description)
    : description_(description.toStdString()) {}
