// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/web/processfigures.h"

#include <QtCore/QByteArray>
#include <QtCore/QFile>
#include <QtCore/QList>

#include <dirent.h>
#include <sys/resource.h>
#include <unistd.h>

namespace host {
namespace {

// Files of /proc have no size: read until there is no more.
QByteArray contentOf(const char *name)
{
    QFile file(QString::fromLatin1(name));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// The fields behind the program's name, which may hold anything. The first one is field 3.
QList<QByteArray> statFields()
{
    const QByteArray text = contentOf("/proc/self/stat");
    return text.mid(text.lastIndexOf(')') + 2).split(' ');
}

double bootTime()
{
    const QByteArray text = contentOf("/proc/stat");
    const QByteArray key = "\nbtime ";
    const qsizetype begin = text.indexOf(key);
    if (begin < 0)
        return 0;
    const qsizetype from = begin + key.size();
    return text.mid(from, text.indexOf('\n', from) - from).toDouble();
}

qint64 countOpenFiles()
{
    DIR *const folder = ::opendir("/proc/self/fd");
    if (!folder)
        return 0;
    qint64 entries = 0;
    while (::readdir(folder))
        ++entries;
    ::closedir(folder);
    constexpr qint64 NotCounted = 3; // ".", "..", and the folder itself
    return entries - NotCounted;
}

} // namespace

ProcessFigures ProcessFigures::read()
{
    // Numbers of proc(5), less the 3 of the first field.
    enum {
        UserTicks = 11,
        SystemTicks = 12,
        Threads = 17,
        StartTicks = 19,
        Virtual = 20,
        Pages = 21
    };
    const QList<QByteArray> fields = statFields();
    const auto ticksPerSecond = static_cast<double>(::sysconf(_SC_CLK_TCK));

    ProcessFigures figures;
    figures.cpuSeconds = (fields.value(UserTicks).toDouble() + fields.value(SystemTicks).toDouble())
            / ticksPerSecond;
    figures.threads = fields.value(Threads).toLongLong();
    figures.virtualBytes = fields.value(Virtual).toLongLong();
    figures.residentBytes = fields.value(Pages).toLongLong() * ::sysconf(_SC_PAGESIZE);
    if (const double boot = bootTime(); boot > 0)
        figures.startTime = boot + fields.value(StartTicks).toDouble() / ticksPerSecond;
    figures.openFiles = countOpenFiles();
    rlimit limit = {};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0)
        figures.maxFiles = static_cast<qint64>(limit.rlim_cur);
    return figures;
}

} // namespace host
