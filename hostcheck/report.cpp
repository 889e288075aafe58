// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "hostcheck/report.h"

#include "hostcheck/progress.h"

#include <QtCore/QFile>
#include <QtCore/QXmlStreamWriter>

#include <algorithm>
#include <cstdio>

namespace hostcheck {
namespace {

const char *wordOf(Verdict::Result result)
{
    switch (result) {
    case Verdict::Ok:
        return "ok     ";
    case Verdict::Failed:
        return "FAILED ";
    case Verdict::Skipped:
        return "skipped";
    }
    return "";
}

// XML has no place for most control characters, U+FFFE, U+FFFF and halves of surrogate pairs.
QString printable(QString text)
{
    for (qsizetype i = 0; i < text.size(); ++i) {
        const QChar c = text.at(i);
        const bool isPair =
                c.isHighSurrogate() && i + 1 < text.size() && text.at(i + 1).isLowSurrogate();
        const bool isControl =
                c < QLatin1Char(' ') && c != QLatin1Char('\n') && c != QLatin1Char('\t');
        if (isPair)
            ++i;
        else if (isControl || c.isSurrogate() || c.unicode() >= 0xfffe)
            text[i] = QLatin1Char('?');
    }
    return text;
}

} // namespace

void Report::add(const Verdict &verdict)
{
    Progress::hide();
    const char *separator = verdict.detail.isEmpty() ? "" : ": ";
    std::printf("%s %s%s%s\n", wordOf(verdict.result), qPrintable(verdict.name), separator,
                qPrintable(verdict.detail));
    if (!verdict.more.isEmpty())
        std::printf("%s\n", qPrintable(verdict.more));
    std::fflush(stdout);
    verdicts.append(verdict);
}

void Report::finish() const
{
    Progress::hide();
    std::printf("%d ok, %d failed, %d skipped\n", count(Verdict::Ok), count(Verdict::Failed),
                count(Verdict::Skipped));
    std::fflush(stdout);
}

int Report::count(Verdict::Result result) const
{
    return static_cast<int>(
            std::count_if(verdicts.begin(), verdicts.end(),
                          [result](const Verdict &verdict) { return verdict.result == result; }));
}

bool Report::writeJunit(const QString &file) const
{
    QFile output(file);
    if (!output.open(QIODevice::WriteOnly))
        return false;
    QXmlStreamWriter xml(&output);
    xml.setAutoFormatting(true);
    xml.writeStartDocument();
    xml.writeStartElement(QStringLiteral("testsuite"));
    xml.writeAttribute(QStringLiteral("name"), suite);
    xml.writeAttribute(QStringLiteral("tests"), QString::number(verdicts.size()));
    xml.writeAttribute(QStringLiteral("failures"), QString::number(count(Verdict::Failed)));
    xml.writeAttribute(QStringLiteral("skipped"), QString::number(count(Verdict::Skipped)));
    for (const Verdict &verdict : verdicts) {
        xml.writeStartElement(QStringLiteral("testcase"));
        xml.writeAttribute(QStringLiteral("classname"), suite);
        xml.writeAttribute(QStringLiteral("name"), printable(verdict.name));
        xml.writeAttribute(QStringLiteral("time"), QString::number(verdict.seconds, 'f', 3));
        if (verdict.result != Verdict::Ok) {
            xml.writeStartElement(verdict.result == Verdict::Failed ? QStringLiteral("failure")
                                                                    : QStringLiteral("skipped"));
            xml.writeAttribute(QStringLiteral("message"), printable(verdict.detail));
            if (!verdict.more.isEmpty())
                xml.writeCharacters(printable(verdict.more));
            xml.writeEndElement();
        }
        xml.writeEndElement();
    }
    xml.writeEndElement();
    xml.writeEndDocument();
    return output.flush() && !xml.hasError();
}

} // namespace hostcheck
