#include "log_relay.h"

#include <QMetaObject>
#include <QRegularExpression>
#include <mutex>
#include <string>

#include "kelp_player/log.h"
#include "source_problem.h"

namespace {

constexpr qsizetype kMaxWaiting = 5000;  // a GUI that can't keep up loses the rest

// Never destroyed: a line that was being written when the callback was taken back may still arrive.
struct Shared {
    std::mutex mutex;
    LogRelay* relay = nullptr;
    QStringList waiting;
    std::string lastError;
};

Shared& shared() {
    static auto* const instance = new Shared;
    return *instance;
}

}  // namespace

// [embed] Neither the player nor the log may be called from a log callback
LogRelay::LogRelay(QObject* parent) : QObject(parent) {
    {
        std::lock_guard lock(shared().mutex);
        shared().relay = this;
    }
    kelp::Log::SetLogCallback([](const char* line) {
        const std::string text(line);
        std::lock_guard lock(shared().mutex);
        // A call that came at a wrong moment says nothing about the source.
        if (text.find("(ERROR)") != std::string::npos && text.find(", error state:") == std::string::npos) {
            shared().lastError = reasonIn(messageOf(text));
        }
        LogRelay* const relay = shared().relay;
        if (!relay || shared().waiting.size() >= kMaxWaiting) {
            return;
        }
        shared().waiting.append(QString::fromUtf8(line));
        if (shared().waiting.size() == 1) {
            QMetaObject::invokeMethod(relay, &LogRelay::deliver, Qt::QueuedConnection);
        }
    });
}
// [embed end]

LogRelay::~LogRelay() {
    kelp::Log::SetLogCallback(nullptr);
    std::lock_guard lock(shared().mutex);
    shared().relay = nullptr;
    shared().waiting.clear();
}

QString LogRelay::lastError() {
    std::lock_guard lock(shared().mutex);
    return QString::fromStdString(shared().lastError);
}

void LogRelay::forgetErrors() {
    std::lock_guard lock(shared().mutex);
    shared().lastError.clear();
}

void LogRelay::deliver() {
    static const QRegularExpression kDecoration(QStringLiteral("\x1b\\[[0-9;]*m|[\r\n]+$"));
    QStringList lines;
    {
        std::lock_guard lock(shared().mutex);
        lines.swap(shared().waiting);
    }
    for (QString& line : lines) {
        line.remove(kDecoration);
    }
    emit linesWritten(lines);
}
