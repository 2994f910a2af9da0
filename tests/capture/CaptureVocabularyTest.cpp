#include "capture/CaptureVocabulary.h"

#include <gtest/gtest.h>

#include <future>
#include <new>

#include <functional>
#include <string_view>

namespace {

template <typename Format> size_t rawValueHash(Format format) {
    const QString raw = format.rawValue();
    return std::hash<std::u16string_view>()(
        std::u16string_view(reinterpret_cast<const char16_t*>(raw.utf16()), raw.size()));
}

} // namespace

TEST(AudioExportFormat, RawValuesIdsAndExtensions) {
    EXPECT_EQ(AudioExportFormat(AudioExportFormat::m4a).rawValue(), "M4A");
    EXPECT_EQ(AudioExportFormat(AudioExportFormat::mp3).rawValue(), "MP3");
    EXPECT_EQ(AudioExportFormat(AudioExportFormat::wav).rawValue(), "WAV");
    for (AudioExportFormat format : AudioExportFormat::allCases()) {
        EXPECT_EQ(format.id(), format.rawValue());
        EXPECT_EQ(format.fileExtension(), format.rawValue().toLower());
    }
    EXPECT_EQ(AudioExportFormat(AudioExportFormat::m4a).fileExtension(), "m4a");
    EXPECT_EQ(AudioExportFormat(AudioExportFormat::mp3).fileExtension(), "mp3");
    EXPECT_EQ(AudioExportFormat(AudioExportFormat::wav).fileExtension(), "wav");
}

TEST(AudioExportFormat, AllCasesInDeclarationAndOrdinalOrder) {
    const auto all = AudioExportFormat::allCases();
    ASSERT_EQ(all.size(), 3u);
    EXPECT_EQ(all[0], AudioExportFormat::m4a);
    EXPECT_EQ(all[1], AudioExportFormat::mp3);
    EXPECT_EQ(all[2], AudioExportFormat::wav);
    EXPECT_EQ(static_cast<int>(AudioExportFormat::m4a), 0);
    EXPECT_EQ(static_cast<int>(AudioExportFormat::mp3), 1);
    EXPECT_EQ(static_cast<int>(AudioExportFormat::wav), 2);
}

TEST(AudioExportFormat, FromRawValueAcceptsExactRawValues) {
    for (AudioExportFormat format : AudioExportFormat::allCases()) {
        EXPECT_EQ(AudioExportFormat::fromRawValue(format.rawValue()), format);
    }
    EXPECT_EQ(AudioExportFormat::fromRawValue(""), std::nullopt);
    EXPECT_EQ(AudioExportFormat::fromRawValue("MP3 "), std::nullopt);
    EXPECT_EQ(AudioExportFormat::fromRawValue("AAC"), std::nullopt);
}

TEST(AudioExportFormat, LowerCaseRawValueYieldsNoValue) {
    EXPECT_EQ(AudioExportFormat::fromRawValue("m4a"), std::nullopt);
    EXPECT_EQ(AudioExportFormat::fromRawValue("M4a"), std::nullopt);
    EXPECT_EQ(AudioExportFormat::fromRawValue("M4A"), AudioExportFormat::m4a);
}

TEST(AudioExportFormat, HashesLikeItsRawValue) {
    for (AudioExportFormat format : AudioExportFormat::allCases()) {
        EXPECT_EQ(std::hash<AudioExportFormat>()(format), rawValueHash(format));
    }
}

TEST(SnapshotExportFormat, RawValuesIdsAndExtensions) {
    EXPECT_EQ(SnapshotExportFormat(SnapshotExportFormat::png).rawValue(), "PNG");
    EXPECT_EQ(SnapshotExportFormat(SnapshotExportFormat::jpeg).rawValue(), "JPEG");
    EXPECT_EQ(SnapshotExportFormat(SnapshotExportFormat::pdf).rawValue(), "PDF");
    for (SnapshotExportFormat format : SnapshotExportFormat::allCases()) {
        EXPECT_EQ(format.id(), format.rawValue());
    }
    EXPECT_EQ(SnapshotExportFormat(SnapshotExportFormat::png).fileExtension(), "png");
    EXPECT_EQ(SnapshotExportFormat(SnapshotExportFormat::pdf).fileExtension(), "pdf");
}

TEST(SnapshotExportFormat, JpegExtensionIsJpgWhileRawValueIsJPEG) {
    const SnapshotExportFormat jpeg = SnapshotExportFormat::jpeg;
    EXPECT_EQ(jpeg.fileExtension(), "jpg");
    EXPECT_EQ(jpeg.rawValue(), "JPEG");
}

TEST(SnapshotExportFormat, AllCasesInDeclarationAndOrdinalOrder) {
    const auto all = SnapshotExportFormat::allCases();
    ASSERT_EQ(all.size(), 3u);
    EXPECT_EQ(all[0], SnapshotExportFormat::png);
    EXPECT_EQ(all[1], SnapshotExportFormat::jpeg);
    EXPECT_EQ(all[2], SnapshotExportFormat::pdf);
    EXPECT_EQ(static_cast<int>(SnapshotExportFormat::png), 0);
    EXPECT_EQ(static_cast<int>(SnapshotExportFormat::jpeg), 1);
    EXPECT_EQ(static_cast<int>(SnapshotExportFormat::pdf), 2);
}

TEST(SnapshotExportFormat, FromRawValueIsExactAndCaseSensitive) {
    for (SnapshotExportFormat format : SnapshotExportFormat::allCases()) {
        EXPECT_EQ(SnapshotExportFormat::fromRawValue(format.rawValue()), format);
    }
    EXPECT_EQ(SnapshotExportFormat::fromRawValue("jpeg"), std::nullopt);
    EXPECT_EQ(SnapshotExportFormat::fromRawValue("JPG"), std::nullopt);
    EXPECT_EQ(SnapshotExportFormat::fromRawValue("Png"), std::nullopt);
}

TEST(SnapshotExportFormat, HashesLikeItsRawValue) {
    for (SnapshotExportFormat format : SnapshotExportFormat::allCases()) {
        EXPECT_EQ(std::hash<SnapshotExportFormat>()(format), rawValueHash(format));
    }
}

TEST(CaptureEngineError, CannotCreateWriterAppendsDetailEndingInFullStopUnchanged) {
    const auto error = CaptureEngineError::cannotCreateWriter("The M4A encoder is unavailable.");
    EXPECT_EQ(error.errorDescription(),
              "The recording could not start: The M4A encoder is unavailable.");
    EXPECT_STREQ(error.what(), "The recording could not start: The M4A encoder is unavailable.");
    EXPECT_EQ(error.detail(), "The M4A encoder is unavailable.");
}

TEST(CaptureEngineError, CannotEncodeWithEmptyDetailKeepsTrailingBlank) {
    const auto error = CaptureEngineError::cannotEncode("");
    EXPECT_EQ(error.errorDescription(), "The capture could not be saved: ");
    EXPECT_STREQ(error.what(), "The capture could not be saved: ");
}

TEST(CaptureEngineError, NoDisplayCarriesNoDetailAndGivesTheFixedSentence) {
    const auto error = CaptureEngineError::noDisplay();
    EXPECT_TRUE(error.detail().isEmpty());
    EXPECT_EQ(error.errorDescription(), "Tessarel could not find a display to capture.");
    EXPECT_STREQ(error.what(), "Tessarel could not find a display to capture.");
}

TEST(CaptureEngineError, CodesArePositionsInDeclarationOrder) {
    EXPECT_EQ(static_cast<int>(CaptureEngineError::cannotCreateWriter("x").code()), 0);
    EXPECT_EQ(static_cast<int>(CaptureEngineError::cannotEncode("x").code()), 1);
    EXPECT_EQ(static_cast<int>(CaptureEngineError::noDisplay().code()), 2);
}

TEST(CaptureEngineError, DescriptionIsUtf8) {
    const auto error = CaptureEngineError::cannotEncode(QStringLiteral("Datei “Mäpp” fehlt"));
    EXPECT_EQ(QString::fromUtf8(error.what()),
              QStringLiteral("The capture could not be saved: Datei “Mäpp” fehlt"));
    EXPECT_EQ(localizedDescription(std::make_exception_ptr(error)), error.errorDescription());
}

TEST(PlatformError, PassesTheServiceDescriptionOnUnchanged) {
    const PlatformError error(QStringLiteral("The stream could not start."));
    EXPECT_STREQ(error.what(), "The stream could not start.");
    EXPECT_EQ(localizedDescription(std::make_exception_ptr(error)), "The stream could not start.");
}

TEST(LibraryErrors, NeverReachTheUserWithTheirOwnText) {
    std::promise<void> abandoned;
    std::future<void> outcome = abandoned.get_future();
    { const std::promise<void> dropped = std::move(abandoned); }
    std::exception_ptr brokenPromise;
    try {
        outcome.get();
    } catch (...) {
        brokenPromise = std::current_exception();
    }
    ASSERT_TRUE(brokenPromise);
    EXPECT_EQ(localizedDescription(brokenPromise), kUnexpectedFailure);
    EXPECT_EQ(localizedDescription(std::make_exception_ptr(std::bad_alloc())), kUnexpectedFailure);
    EXPECT_EQ(localizedDescription(std::make_exception_ptr(42)), kUnexpectedFailure);
}
