#include "ControllerFixture.h"

#include <QSaveFile>

#include <unistd.h>

namespace {

// A folder this process cannot write into: a read-only directory, or, where the user may
// write there anyway (root), a path below a regular file.
QString unwritableFolder(const QTemporaryDir& parent) {
    const QString readOnly = parent.filePath(QStringLiteral("read-only"));
    QDir().mkdir(readOnly);
    QFile::setPermissions(readOnly, QFileDevice::ReadOwner | QFileDevice::ExeOwner);
    if (::access(QFile::encodeName(readOnly).constData(), W_OK) != 0) {
        return readOnly;
    }
    const QString regularFile = parent.filePath(QStringLiteral("regular-file"));
    QFile file(regularFile);
    EXPECT_TRUE(file.open(QIODevice::WriteOnly));
    return regularFile + QStringLiteral("/folder");
}

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

TEST_F(SnapshotSaving, UnwritableFolderPngReportsTheWriteError) {
    const QString unwritable = unwritableFolder(folder);
    controller->saveFolder.set(QUrl::fromLocalFile(unwritable));
    takeSnapshotAndWait();

    const QString target =
        QDir(unwritable)
            .filePath(TessarelController::fileName(QStringLiteral("Tessarel Snapshot"),
                                                   fakes.clock.time, QStringLiteral("png")));
    QSaveFile probe(target);
    ASSERT_FALSE(probe.open(QIODevice::WriteOnly));
    const QString writeError = probe.errorString();
    ASSERT_FALSE(writeError.isEmpty());

    // The system's own text, passed on unchanged: as a message, or as the permission prompt
    // when it speaks of a permission.
    if (TessarelController::descriptionSpeaksOfPermission(writeError)) {
        EXPECT_TRUE(controller->screenCapturePermissionRequired());
        EXPECT_FALSE(controller->errorMessage());
    } else {
        EXPECT_EQ(controller->errorMessage(), writeError);
    }
    EXPECT_EQ(controller->mode(), TessarelMode::home);
    EXPECT_FALSE(controller->lastSavedURL());
    EXPECT_FALSE(QFile::exists(target));
}

TEST_F(SnapshotSaving, UnwritableFolderPdfReportsPdfEncoderUnavailable) {
    controller->saveFolder.set(QUrl::fromLocalFile(unwritableFolder(folder)));
    controller->snapshotFormat.set(SnapshotExportFormat::pdf);
    takeSnapshotAndWait();
    EXPECT_EQ(controller->errorMessage(),
              QStringLiteral("The capture could not be saved: PDF encoder unavailable"));
    EXPECT_EQ(controller->mode(), TessarelMode::home);
    EXPECT_TRUE(fakes.workspace.revealed.empty());
}

TEST_F(SnapshotSaving, BitmapEncoderWithoutDataReportsImageEncoderUnavailable) {
    fakes.encoders.jpegFails = true;
    controller->snapshotFormat.set(SnapshotExportFormat::jpeg);
    takeSnapshotAndWait();
    EXPECT_EQ(controller->errorMessage(),
              QStringLiteral("The capture could not be saved: Image encoder unavailable"));
    EXPECT_TRUE(QDir(folder.path()).isEmpty());
}
