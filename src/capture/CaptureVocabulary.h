#pragma once

#include <QString>

#include <array>
#include <exception>
#include <functional>
#include <optional>
#include <string>

// The formats an audio recording can be exported in. The raw value is the display text
// and the identifier; the order of `allCases()` is the order in which they are offered.
class AudioExportFormat {
public:
    enum Value { m4a, mp3, wav };

    constexpr AudioExportFormat(Value value) : value_(value) {}
    constexpr operator Value() const { return value_; }

    static std::optional<AudioExportFormat> fromRawValue(const QString& rawValue);
    static constexpr std::array<AudioExportFormat, 3> allCases() { return {m4a, mp3, wav}; }

    QString rawValue() const;
    QString id() const { return rawValue(); }
    QString fileExtension() const;

private:
    Value value_;
};

// The formats a snapshot can be saved in. JPEG files carry the short extension "jpg".
class SnapshotExportFormat {
public:
    enum Value { png, jpeg, pdf };

    constexpr SnapshotExportFormat(Value value) : value_(value) {}
    constexpr operator Value() const { return value_; }

    static std::optional<SnapshotExportFormat> fromRawValue(const QString& rawValue);
    static constexpr std::array<SnapshotExportFormat, 3> allCases() { return {png, jpeg, pdf}; }

    QString rawValue() const;
    QString id() const { return rawValue(); }
    QString fileExtension() const;

private:
    Value value_;
};

// Tessarel's own errors (CaptureEngineError, PlatformError) carry the user-facing description
// in what(), in UTF-8; the controller shows it as it is. Any other exception is a fault of the
// program whose library text means nothing to a user: it reads as kUnexpectedFailure.
QString localizedDescription(const std::exception_ptr& error);
inline const QString kUnexpectedFailure =
    QStringLiteral("Tessarel ran into an unexpected problem and stopped the capture.");

// The engine's own failures.
class CaptureEngineError : public std::exception {
public:
    enum class Code { cannotCreateWriter = 0, cannotEncode = 1, noDisplay = 2 };

    static CaptureEngineError cannotCreateWriter(const QString& detail);
    static CaptureEngineError cannotEncode(const QString& detail);
    static CaptureEngineError noDisplay();

    Code code() const { return code_; }
    const QString& detail() const { return detail_; }
    QString errorDescription() const;
    const char* what() const noexcept override { return description_.c_str(); }

private:
    CaptureEngineError(Code code, const QString& detail);

    Code code_;
    QString detail_;
    std::string description_;
};

// A failure reported by a platform service (capture, writer, file system, process launch),
// passed on unchanged with the service's own description.
class PlatformError : public std::exception {
public:
    explicit PlatformError(const QString& description);
    const char* what() const noexcept override { return description_.c_str(); }

private:
    std::string description_;
};

// A file that could not be created or written: names the file, its folder and the system's
// own words for the failure ("Permission denied", "No space left on device").
PlatformError fileSystemError(const QString& path, const QString& reason);
// The same for the reason in errno's `code`.
PlatformError fileSystemError(const QString& path, int code);

// The file name `path` takes as the `number`th of its name: the name itself for the first,
// then "name (2).ext", "name (3).ext" and so on.
QString numberedPath(const QString& path, int number);

// What the user is told when the folder of a recording went away while it ran and was made
// again for the file at `path`.
QString folderMadeAgainNotice(const QString& path);

// Rethrows the exception being handled; where the system refused a resource the program
// asked for (a thread: std::system_error), as a PlatformError that says so in the system's
// own words.
[[noreturn]] void rethrowExplained();

// The screen-capture permission itself was refused: the one failure that the permission
// prompt answers. Every other failure, a folder that refuses a file included, is shown as
// what it is.
class ScreenCapturePermissionError : public PlatformError {
public:
    using PlatformError::PlatformError;
};

template <> struct std::hash<AudioExportFormat> {
    size_t operator()(AudioExportFormat format) const noexcept {
        return std::hash<std::u16string_view>()(
            std::u16string_view(reinterpret_cast<const char16_t*>(format.rawValue().utf16())));
    }
};

template <> struct std::hash<SnapshotExportFormat> {
    size_t operator()(SnapshotExportFormat format) const noexcept {
        return std::hash<std::u16string_view>()(
            std::u16string_view(reinterpret_cast<const char16_t*>(format.rawValue().utf16())));
    }
};
