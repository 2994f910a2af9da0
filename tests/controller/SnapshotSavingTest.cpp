#include "ControllerFixture.h"

#include "support/ReadOnlyFolder.h"

namespace {

QByteArray contents(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace

using SnapshotSaving = ControllerTest;

TEST_F(SnapshotSaving, JpegIsSavedAsJpgWithQuality092) {
    controller->snapshotFormat.set(SnapshotExportFormat::jpeg);
    takeSnapshotAndWait();
    EXPECT_TRUE(pathOf(controller->lastSavedURL()).endsWith(QStringLiteral(".jpg")));
    EXPECT_EQ(fakes.encoders.jpegQualities, std::vector<double>{0.92});
    EXPECT_EQ(fakes.encoders.pngCount, 0);
    EXPECT_TRUE(contents(pathOf(controller->lastSavedURL()))
                    .startsWith(FakeSnapshotEncoders::jpegSignature));
}

TEST_F(SnapshotSaving, PngIsEncodedWithoutProperties) {
    takeSnapshotAndWait();
    EXPECT_TRUE(pathOf(controller->lastSavedURL()).endsWith(QStringLiteral(".png")));
    EXPECT_EQ(fakes.encoders.pngCount, 1);
    EXPECT_TRUE(fakes.encoders.jpegQualities.empty());
    EXPECT_EQ(contents(pathOf(controller->lastSavedURL())),
              FakeSnapshotEncoders::pngSignature + "2x2");
}

TEST_F(SnapshotSaving, BitmapWriteLeavesNoTemporaryFileBehind) {
    takeSnapshotAndWait();
    EXPECT_EQ(QDir(folder.path()).entryList(QDir::Files | QDir::Hidden),
              QStringList{QFileInfo(pathOf(controller->lastSavedURL())).fileName()});
}

TEST_F(SnapshotSaving, OnePixelPdfHasOneByOnePointMediaBox) {
    capture.screenshots.setImage(Image{1, 1, 4, QByteArray(4, '\x10')});
    controller->snapshotFormat.set(SnapshotExportFormat::pdf);
    takeSnapshotAndWait();
    EXPECT_EQ(fakes.encoders.pdfMediaBoxes, (std::vector<Size>{Size{1, 1}}));
    EXPECT_TRUE(pathOf(controller->lastSavedURL()).endsWith(QStringLiteral(".pdf")));
    EXPECT_EQ(contents(pathOf(controller->lastSavedURL())),
              FakeSnapshotEncoders::pdfSignature + "1x1");
}

TEST_F(SnapshotSaving, PdfPageSizeIsThePixelSizeNotThePointSize) {
    fakes.screens.main =
        ScreenDescription{QVariant::fromValue(uint32_t{1}), Rect{0, 0, 150, 100}, 2.0};
    capture.screenshots.setImage(Image{300, 200, 1200, QByteArray(1200 * 200, '\x20')});
    controller->snapshotFormat.set(SnapshotExportFormat::pdf);
    takeSnapshotAndWait();
    EXPECT_EQ(fakes.encoders.pdfMediaBoxes, (std::vector<Size>{Size{300, 200}}));
}

// The folder is named with the system's own words; it is not a screen-capture permission
// problem, so no permission prompt; nothing is saved and nothing revealed.
TEST_F(SnapshotSaving, ReadOnlyFolderShowsTheFolderAndTheSystemsReason) {
    for (const SnapshotExportFormat format : SnapshotExportFormat::allCases()) {
        SCOPED_TRACE(format.rawValue().toStdString());
        const ReadOnlyFolder readOnly;
        ASSERT_TRUE(readOnly.isReadOnly());
        controller->errorMessage.set(std::nullopt);
        controller->saveFolder.set(QUrl::fromLocalFile(readOnly.path()));
        controller->snapshotFormat.set(format);
        takeSnapshotAndWait();

        const QString name = TessarelController::fileName(QStringLiteral("Tessarel Snapshot"),
                                                          fakes.clock.time, format.fileExtension());
        EXPECT_EQ(controller->errorMessage(),
                  QStringLiteral("Tessarel could not save “%1” in the folder “%2”: %3")
                      .arg(name, readOnly.path(), readOnly.refusal()));
        EXPECT_FALSE(controller->screenCapturePermissionRequired());
        EXPECT_EQ(controller->mode(), TessarelMode::home);
        EXPECT_FALSE(controller->lastSavedURL());
        EXPECT_TRUE(readOnly.isEmpty());
        EXPECT_TRUE(fakes.workspace.revealed.empty());
    }
}

// Two snapshots within one second: the second takes the next number, the first stays.
TEST_F(SnapshotSaving, SnapshotsInTheSameSecondKeepEveryFileUnderItsOwnNumber) {
    std::vector<QString> saved;
    for (int shot = 0; shot < 3; ++shot) {
        takeSnapshotAndWait();
        saved.push_back(pathOf(controller->lastSavedURL()));
    }
    const QString base = TessarelController::fileName(QStringLiteral("Tessarel Snapshot"),
                                                      fakes.clock.time, QStringLiteral("png"));
    const QString numbered = base.chopped(4);
    EXPECT_EQ(saved, (std::vector<QString>{QDir(folder.path()).filePath(base),
                                           QDir(folder.path()).filePath(numbered + " (2).png"),
                                           QDir(folder.path()).filePath(numbered + " (3).png")}));
    for (const QString& path : saved) {
        EXPECT_EQ(contents(path), FakeSnapshotEncoders::pngSignature + "2x2");
    }
}

// A file that appears under the chosen name while the screen is being read is left alone.
TEST_F(SnapshotSaving, NameTakenWhileCapturingIsNeverOverwritten) {
    screenshots.hold();
    controller->show(TessarelMode::snapshotSetup);
    controller->takeSnapshot();
    ASSERT_TRUE(processEventsUntil([this] { return screenshots.isWaiting(); }));
    const QString base =
        QDir(folder.path())
            .filePath(TessarelController::fileName(QStringLiteral("Tessarel Snapshot"),
                                                   fakes.clock.time, QStringLiteral("png")));
    QFile other(base);
    ASSERT_TRUE(other.open(QIODevice::WriteOnly));
    other.write("someone else's");
    other.close();
    screenshots.release();
    waitForPendingWork();

    EXPECT_EQ(contents(base), "someone else's");
    EXPECT_EQ(pathOf(controller->lastSavedURL()), base.chopped(4) + " (2).png");
    EXPECT_EQ(contents(pathOf(controller->lastSavedURL())),
              FakeSnapshotEncoders::pngSignature + "2x2");
}

TEST_F(SnapshotSaving, BitmapEncoderWithoutDataReportsImageEncoderUnavailable) {
    fakes.encoders.jpegFails = true;
    controller->snapshotFormat.set(SnapshotExportFormat::jpeg);
    takeSnapshotAndWait();
    EXPECT_EQ(controller->errorMessage(),
              QStringLiteral("The capture could not be saved: Image encoder unavailable"));
    EXPECT_TRUE(QDir(folder.path()).isEmpty());
}
