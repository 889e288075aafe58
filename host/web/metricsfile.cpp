// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/web/metricsfile.h"

#include "host/web/bulletin.h"
#include "host/web/metrics.h"
#include "host/web/processfigures.h"
#include "plugin/cwrn.h"

#include <QtCore/QFile>
#include <QtCore/QSaveFile>

#include <utility>

namespace host {
namespace {

// The collector is another user.
constexpr QFile::Permissions ForAll =
        QFile::ReadOwner | QFile::WriteOwner | QFile::ReadGroup | QFile::ReadOther;

} // namespace

MetricsFile::MetricsFile(Bulletin &published, QString file)
    : bulletin(published),
      fileName(std::move(file))
{
    connect(&timer, &QTimer::timeout, this, &MetricsFile::writeAgain);
}

MetricsFile::~MetricsFile()
{
    if (timer.isActive())
        QFile::remove(fileName);
}

bool MetricsFile::start(std::chrono::milliseconds interval)
{
    if (!write())
        return false;
    timer.start(interval);
    return true;
}

bool MetricsFile::write()
{
    const auto snapshot = bulletin.snapshot();
    const std::chrono::duration<double> age = std::chrono::steady_clock::now() - snapshot->taken;
    const QByteArray text = metricsText(*snapshot, ProcessFigures::read(), age.count());
    QSaveFile file(fileName);
    if (file.open(QIODevice::WriteOnly)) {
        file.setPermissions(ForAll);
        file.write(text);
        if (file.commit())
            return true;
    }
    error = QStringLiteral("Cannot write to %1: %2").arg(fileName, file.errorString());
    return false;
}

void MetricsFile::writeAgain()
{
    const bool hasFailed = !write();
    if (hasFailed && !failing)
        CWRN(QtWarningMsg, QStringLiteral("%1; the metrics in it are old"), error);
    if (!hasFailed && failing)
        CWRN(QtInfoMsg, QStringLiteral("Metrics are written to %1 again"), fileName);
    failing = hasFailed;
}

} // namespace host
