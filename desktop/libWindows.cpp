#include "desktop/libWindows.h"

#include <QApplication>
#ifdef VESTREL_DBUS
#include <QDBusConnection>
#include <QDBusMessage>
#endif
#include <QDropEvent>
#include <QFileDialog>
#include <QHelpEvent>
#include <QKeyEvent>
#include <QMessageBox>
#include <QMimeData>
#include <QPainter>
#include <QPushButton>
#include <QRegularExpression>
#include <QScreen>
#include <QStringDecoder>
#include <QStyle>
#include <QTextBlock>
#include <QTextCursor>
#include <QTextEdit>
#include <QToolTip>
#include <QUrl>
#include <algorithm>
#include <cstdlib>
#include <memory>
#include <string_view>

#ifndef _WIN32
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

#include "astro/libStrings.h"
#include "program/mSolveReport.h"

namespace vestrel {

namespace {

#if !defined(_WIN32) && !defined(__APPLE__)
bool IsSet(const char* variable) {
    const char* value = std::getenv(variable);
    return value != nullptr && *value != 0;
}

/// Prints nothing, and exits where Qt would abort.
void QuietHandler(QtMsgType type, const QMessageLogContext& /*context*/, const QString& /*text*/) {
    if (type == QtFatalMsg) _exit(1);
}
#endif

}  // namespace

QString QtText(const std::string& utf8) {
    return QString::fromUtf8(utf8.data(), static_cast<qsizetype>(utf8.size()));
}

QString PlainToolTip(const QString& text) {
    return text.isEmpty() ? text : "<p>" + text.toHtmlEscaped() + "</p>";
}

std::string Utf8(const QString& text) {
    return text.toStdString();
}

namespace {

bool IsDark(const QPalette& palette) {
    return palette.color(QPalette::Window).lightness() < 128;
}

/// Makes a palette of a few greys or reds.
QPalette PaletteFrom(const QColor& window, const QColor& base, const QColor& text,
                     const QColor& faint, const QColor& accent) {
    QPalette palette(window, window);
    palette.setColor(QPalette::Base, base);
    palette.setColor(QPalette::AlternateBase, window);
    palette.setColor(QPalette::ToolTipBase, base);
    palette.setColor(QPalette::Highlight, accent);
    palette.setColor(QPalette::HighlightedText, base);
    palette.setColor(QPalette::Link, accent);
    palette.setColor(QPalette::LinkVisited, accent);
    palette.setColor(QPalette::PlaceholderText, faint);
    for (const auto role : {QPalette::WindowText, QPalette::Text, QPalette::ButtonText,
                            QPalette::ToolTipText, QPalette::BrightText}) {
        palette.setColor(role, text);
        palette.setColor(QPalette::Disabled, role, faint);
    }
    return palette;
}

}  // namespace

std::optional<QPalette> PaletteOf(const std::string& theme) {
    if (theme == "light") {
        return PaletteFrom({239, 240, 241}, {252, 252, 252}, {30, 33, 36}, {95, 99, 104},
                           {20, 90, 160});
    }
    if (theme == "dark") {
        return PaletteFrom({49, 54, 59}, {35, 38, 41}, {239, 240, 241}, {170, 175, 180},
                           {90, 190, 245});
    }
    if (theme == "night") {
        // Inputs and boxes must stand out from the window.
        return PaletteFrom({44, 7, 4}, {12, 0, 0}, {255, 100, 84}, {225, 78, 65}, {255, 110, 90});
    }
    return std::nullopt;
}

void ApplyTheme(const std::string& theme) {
    static const QPalette systems = QApplication::palette();
    static const QString systemStyle = QApplication::style()->objectName();
    const auto palette = PaletteOf(theme);
    // Styles of desktop environments would use their own colours.
    QApplication::setStyle(palette ? QString("Fusion") : systemStyle);
    QApplication::setPalette(palette.value_or(systems));
}

bool IsRedOnly(const QPalette& palette) {
    return palette.color(QPalette::WindowText).blue() < 140 && IsDark(palette);
}

void Redden(QPainter& painter, const QRect& place) {
    painter.setCompositionMode(QPainter::CompositionMode_Multiply);
    painter.fillRect(place, QColor(255, 60, 40));
}

#ifdef VESTREL_DBUS
void ShowTaskbarProgress(int done, int total) {
    // Without a session there is no dock, and Qt would look for one.
    if (!IsSet("DBUS_SESSION_BUS_ADDRESS")) return;
    // https://wiki.ubuntu.com/Unity/LauncherAPI
    QDBusMessage message = QDBusMessage::createSignal(
        "/org/vestrel/Vestrel", "com.canonical.Unity.LauncherEntry", "Update");
    message << "application://" + QGuiApplication::desktopFileName() + ".desktop"
            << QVariantMap{{"progress", total > 0 ? static_cast<double>(done) / total : 0.0},
                           {"progress-visible", done < total}};
    QDBusConnection::sessionBus().send(message);
}
#else
void ShowTaskbarProgress(int /*done*/, int /*total*/) {}
#endif

QColor StatusTextColour(StatusColour colour, const QPalette& palette) {
    const bool dark = IsDark(palette);
    if (IsRedOnly(palette)) return palette.color(QPalette::WindowText);
    switch (colour) {
        case StatusColour::Red:
            return dark ? QColor(255, 130, 120) : QColor(185, 0, 0);
        case StatusColour::Green:
            return dark ? QColor(110, 220, 110) : QColor(0, 105, 0);
        case StatusColour::Black:
            break;
    }
    return palette.color(QPalette::WindowText);
}

QColor TrustColour(TrustLevel level, const QPalette& palette) {
    switch (level) {
        case TrustLevel::Sure:
            return StatusTextColour(StatusColour::Green, palette);
        case TrustLevel::Doubtful:
            return StatusTextColour(StatusColour::Red, palette);
        case TrustLevel::Check:
            if (IsRedOnly(palette)) break;
            return IsDark(palette) ? QColor(255, 200, 80) : QColor(130, 75, 0);
        case TrustLevel::None:
            break;
    }
    return palette.color(QPalette::WindowText);
}

QStringList NameFilters(const FileDialog& dialog) {
    QStringList filters;
    const QStringList parts = QtText(dialog.Filters).split('|');
    for (qsizetype i = 0; i + 1 < parts.size(); i += 2) {
        QString patterns = parts[i + 1];
        patterns.replace(';', ' ');
        // Outside Windows "*.*" would mean files with a dot in their name.
        if (patterns == "*.*") patterns = "*";
        filters << parts[i] + " (" + patterns + ")";
    }
    return filters;
}

#if defined(_WIN32) || defined(__APPLE__)
DisplayProbe::DisplayProbe(int /*argc*/, char** /*argv*/) {}
DisplayProbe::~DisplayProbe() = default;
#else
DisplayProbe::DisplayProbe(int argc, char** argv) {
    const bool named = std::any_of(argv + 1, argv + argc, [](const char* argument) {
        return std::string_view(argument) == "-platform";
    });
    if (!named && !IsSet("DISPLAY") && !IsSet("WAYLAND_DISPLAY") && !IsSet("QT_QPA_PLATFORM")) {
        canOpenWindows_ = false;
        return;
    }
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) return;
    char signal = 0;
    child_ = fork();
    if (child_ == 0) {
        close(ends[0]);
        qInstallMessageHandler(QuietHandler);
        const QGuiApplication application(argc, argv);
        if (write(ends[1], &signal, 1) == 1) (void)!read(ends[1], &signal, 1);
        _exit(0);
    }
    close(ends[1]);
    socket_ = ends[0];
    if (child_ > 0) canOpenWindows_ = read(socket_, &signal, 1) == 1;
}

DisplayProbe::~DisplayProbe() {
    if (socket_ >= 0) close(socket_);
    if (child_ > 0) waitpid(child_, nullptr, 0);
}
#endif

QString HeaderText(const std::string& bytes) {
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    const QString text =
        decoder(QByteArrayView(bytes.data(), static_cast<qsizetype>(bytes.size())));
    return decoder.hasError()
               ? QString::fromLatin1(bytes.data(), static_cast<qsizetype>(bytes.size()))
               : text;
}

void WithoutDefaultButtons(QDialog& dialog) {
    for (QPushButton* button : dialog.findChildren<QPushButton*>()) {
        button->setAutoDefault(false);
        button->setDefault(false);
        button->setIcon({});
    }
}

void KeepOnScreen(QWidget& window) {
    const QScreen* screen = window.screen();
    if (screen == nullptr || window.isMaximized() || window.isFullScreen()) return;
    // Leaves space for the frame that the window manager adds.
    constexpr int titleBar = 32;
    const QRect room = screen->availableGeometry().adjusted(0, titleBar, 0, 0);
    // Empty until the window manager has added one.
    const QSize frame = window.frameGeometry().size() - window.size();
    const QSize size = window.size().boundedTo(room.size() - frame);
    if (size != window.size()) window.resize(size);
    const QSize whole = size + frame;
    const QPoint at(qBound(room.left(), window.x(), room.right() + 1 - whole.width()),
                    qBound(room.top(), window.y(), room.bottom() + 1 - whole.height()));
    if (at != window.pos()) window.move(at);
}

void ShowReport(QTextEdit& box, const QString& text) {
    box.setPlainText(text);
    const double letter = QFontMetricsF(box.font()).horizontalAdvance(' ');
    QTextCursor cursor(box.document());
    do {
        const double indent =
            letter * static_cast<double>(ContinuationColumn(Utf8(cursor.block().text())));
        QTextBlockFormat format;
        format.setLeftMargin(indent);
        format.setTextIndent(-indent);
        cursor.setBlockFormat(format);
    } while (cursor.movePosition(QTextCursor::NextBlock));
}

QStringList DraggedFiles(const QMimeData* data) {
    QStringList files;
    for (const QUrl& url : data->urls()) {
        if (url.isLocalFile()) files << url.toLocalFile();
    }
    return files;
}

void AcceptAsCopy(QDropEvent& event) {
    event.setDropAction(Qt::CopyAction);
    event.accept();
}

bool InputBox::event(QEvent* event) {
    if (event->type() == QEvent::ShortcutOverride) {
        const auto* key = static_cast<QKeyEvent*>(event);
        if (key->modifiers() == Qt::ControlModifier && key->key() == Qt::Key_E) {
            event->ignore();
            return true;
        }
    }
    return QLineEdit::event(event);
}

ElidedLabel::ElidedLabel() {
    setTextFormat(Qt::PlainText);
    setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Fixed);
}

bool ElidedLabel::event(QEvent* event) {
    if (event->type() != QEvent::ToolTip) return QLabel::event(event);
    const bool cut = fontMetrics().horizontalAdvance(text()) > contentsRect().width();
    const QString whole = !toolTip().isEmpty() ? toolTip() : cut ? text() : QString();
    QToolTip::showText(static_cast<QHelpEvent*>(event)->globalPos(), PlainToolTip(whole), this);
    return true;
}

void ElidedLabel::paintEvent(QPaintEvent* /*event*/) {
    QPainter painter(this);
    // A path reads from left to right, whatever the letters of its folders.
    painter.setLayoutDirection(Qt::LeftToRight);
    painter.drawText(contentsRect(), Qt::AlignLeft | Qt::AlignVCenter,
                     fontMetrics().elidedText(text(), Qt::ElideMiddle, contentsRect().width()));
}

WholeLabel::WholeLabel() {
    setWordWrap(true);
    setSizePolicy(QSizePolicy::Preferred, QSizePolicy::Fixed);
}

void WholeLabel::resizeEvent(QResizeEvent* event) {
    QLabel::resizeEvent(event);
    if (event->oldSize().width() != width()) updateGeometry();
}

WindowPort::~WindowPort() {
    WindowPort::ShowBusyPointer(false);
}

QWidget* WindowPort::Front() const {
    if (QWidget* dialog = QApplication::activeModalWidget()) return dialog;
    QWidget* active = QApplication::activeWindow();
    // One that is deleted when it is closed would take the dialog with it.
    const bool stays = active != nullptr && !active->testAttribute(Qt::WA_DeleteOnClose);
    return stays ? active : &window_;
}

void WindowPort::ShowMessage(const std::string& text, const std::string& title) {
    auto box = std::make_unique<QMessageBox>(QMessageBox::Warning, QtText(title), QtText(text),
                                             QMessageBox::Ok, Front());
    // Messages contain file names and texts, which may look like markup.
    box->setTextFormat(Qt::PlainText);
    if (Waits) {
        box->exec();
        return;
    }
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->setModal(false);
    // Later, as the main window may not be there yet and would cover it.
    QMetaObject::invokeMethod(box.release(), "show", Qt::QueuedConnection);
}

bool WindowPort::Confirm(const std::string& question, const std::string& title) {
    QMessageBox box(QMessageBox::Question, QtText(title), QtText(question),
                    QMessageBox::Yes | QMessageBox::No, Front());
    box.setDefaultButton(QMessageBox::No);
    box.setTextFormat(Qt::PlainText);
    return box.exec() == QMessageBox::Yes;
}

std::optional<std::string> WindowPort::AskForFile(const FileDialog& dialog) {
    QFileDialog box(Front(), QtText(dialog.Title));
    const QStringList filters = NameFilters(dialog);
    box.setAcceptMode(dialog.Saves ? QFileDialog::AcceptSave : QFileDialog::AcceptOpen);
    box.setFileMode(dialog.Saves ? QFileDialog::AnyFile : QFileDialog::ExistingFile);
    // The descriptions already contain the patterns.
    box.setOption(QFileDialog::HideNameFilterDetails);
    box.setNameFilters(filters);
    if (dialog.FilterIndex >= 1 && dialog.FilterIndex <= filters.size()) {
        box.selectNameFilter(filters[dialog.FilterIndex - 1]);
    }
    if (dialog.Saves) box.setDefaultSuffix(QtText(dialog.Suffix));
    if (dialog.Saves && !dialog.Suffix.empty()) {
        // A name without an ending gets that of the chosen kind of files.
        QObject::connect(&box, &QFileDialog::filterSelected, [&box](const QString& filter) {
            static const QRegularExpression ending(R"(\(\*\.(\w+)[^()]*\)$)");
            const QRegularExpressionMatch match = ending.match(filter);
            if (match.hasMatch()) box.setDefaultSuffix(match.captured(1));
        });
    }
    box.setDirectory(QtText(FolderOfPath(dialog.InitialName)));
    if (!dialog.SuggestedName.empty()) box.selectFile(QtText(dialog.SuggestedName));
    if (box.exec() != QDialog::Accepted || box.selectedFiles().isEmpty()) return std::nullopt;
    return Utf8(box.selectedFiles().constFirst());
}

void WindowPort::Yield() {
    if (yielding_) return;
    yielding_ = true;
    QApplication::processEvents();
    yielding_ = false;
    // A solve that starts resets earlier stop requests, so the request is repeated here.
    if (state_.CloseRequested) state_.StopRequested = true;
}

void WindowPort::ShowBusyPointer(bool busy) {
    if (busy == busyPointer_) return;
    busyPointer_ = busy;
    if (busy) {
        QApplication::setOverrideCursor(Qt::BusyCursor);
    } else {
        QApplication::restoreOverrideCursor();
    }
}

}  // namespace vestrel
