#include <QDragEnterEvent>
#include <QFileDialog>
#include <QFileInfo>
#include <QLineEdit>
#include <QMessageBox>
#include <QMimeData>
#include <QUrl>
#include <algorithm>
#include <array>

#include "main_window.h"

// What is opened, from a dialog, the line of the URL, or a drop.

namespace {

constexpr std::array kSubtitleSuffixes = {"srt", "ass", "ssa", "vtt", "sub", "idx", "sup", "smi", "sbv", "ttml"};

bool isSubtitles(const QString& name) {
    const QString suffix = QFileInfo(name).suffix().toLower();
    return std::ranges::any_of(kSubtitleSuffixes, [&](const char* known) { return suffix == QLatin1String(known); });
}

}  // namespace

void MainWindow::open(const QString& source, const QString& subtitles) {
    if (failure_) {
        failure_->close();
    }
    url_->setText(source);
    player_.open(source, subtitles);
}

void MainWindow::chooseFile() {
    auto* const dialog = new QFileDialog(this, tr("Open a file"), folder_);
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->setFileMode(QFileDialog::ExistingFile);
    connect(dialog, &QFileDialog::fileSelected, this, [this](const QString& path) {
        folder_ = QFileInfo(path).path();
        open(path);
    });
    dialog->open();
}

void MainWindow::chooseSubtitles() {
    QStringList patterns;
    for (const char* const suffix : kSubtitleSuffixes) {
        patterns << QStringLiteral("*.") + QLatin1String(suffix);
    }
    auto* const dialog = new QFileDialog(this, tr("Subtitles of the film"), folder_,
                                         tr("Subtitles (%1);;All files (*)").arg(patterns.join(QLatin1Char(' '))));
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->setFileMode(QFileDialog::ExistingFile);
    connect(dialog, &QFileDialog::fileSelected, &player_, &PlayerController::addSubtitles);
    dialog->open();
}

void MainWindow::chooseSnapshot() {
    auto* const dialog = new QFileDialog(this, tr("Save the picture"), folder_, tr("PNG files (*.png)"));
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->setAcceptMode(QFileDialog::AcceptSave);
    dialog->setDefaultSuffix(QStringLiteral("png"));
    connect(dialog, &QFileDialog::fileSelected, &player_, &PlayerController::saveSnapshot);
    dialog->open();
}

void MainWindow::openUrl() {
    const QString text = url_->text().trimmed();
    if (text.isEmpty()) {
        return;
    }
    setFocus();  // so that keys are shortcuts again
    const QUrl url(text);
    open(url.isLocalFile() ? url.toLocalFile() : text);
}

void MainWindow::dragEnterEvent(QDragEnterEvent* event) {
    if (event->mimeData()->hasUrls()) {
        event->acceptProposedAction();
    }
}

// A film, its subtitles, or both.
void MainWindow::dropEvent(QDropEvent* event) {
    QString film;
    QString subtitles;
    for (const QUrl& url : event->mimeData()->urls()) {
        const QString name = url.isLocalFile() ? url.toLocalFile() : url.toString();
        QString& place = isSubtitles(name) ? subtitles : film;
        if (place.isEmpty()) {
            place = name;
        }
    }
    if (!film.isEmpty()) {
        open(film, subtitles);
    } else if (!subtitles.isEmpty()) {
        player_.addSubtitles(subtitles);
    } else {
        return;
    }
    event->acceptProposedAction();
}
