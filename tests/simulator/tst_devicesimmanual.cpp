// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "simulator/checksums.h"
#include "simulator/framing.h"
#include "simulator/scriptreader.h"

#include <QtCore/QBuffer>
#include <QtCore/QFile>
#include <QtCore/QRegularExpression>
#include <QtTest/QTest>

using namespace simulator;

// What docs/DEVICESIM.md says can be played as it is there.
class tst_DeviceSimManual : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void templates();
    void framings();
    void checksums();
    void scripts();

private:
    QStringList found(const char *pattern) const;

    QString manual;
};

void tst_DeviceSimManual::initTestCase()
{
    QFile file(QStringLiteral(MANUAL_FILE));
    QVERIFY2(file.open(QIODevice::ReadOnly), qPrintable(file.errorString()));
    manual = QString::fromUtf8(file.readAll());
}

// What the pattern's groups have caught, all matches one after the other.
QStringList tst_DeviceSimManual::found(const char *pattern) const
{
    const QRegularExpression expression(QString::fromLatin1(pattern),
                                        QRegularExpression::MultilineOption
                                                | QRegularExpression::DotMatchesEverythingOption);
    QStringList all;
    QRegularExpressionMatchIterator matches = expression.globalMatch(manual);
    while (matches.hasNext())
        all += matches.next().capturedTexts().mid(1);
    return all;
}

void tst_DeviceSimManual::templates()
{
    const QStringList texts = found("--template[ \\\\\\n]+'([^']*)'");
    QCOMPARE(texts.size(), 3);
    for (const QString &text : texts) {
        QString error;
        QVERIFY2(MessageTemplate::read(text.toUtf8(), error), qPrintable(error));
    }
}

void tst_DeviceSimManual::framings()
{
    const QStringList texts = found("--framing '([^']*)'");
    QVERIFY(texts.size() >= 2);
    for (const QString &text : texts)
        QVERIFY2(Framing::read(text), qPrintable(text));
}

void tst_DeviceSimManual::checksums()
{
    const QStringList rows = found("^\\| `([a-z0-9-]+)`[^\\n]*\\| ([0-9A-F]+) \\|$");
    QCOMPARE(rows.size() / 2, checksumNames().split(QLatin1Char(',')).size());
    for (qsizetype i = 0; i < rows.size(); i += 2) {
        const Checksum *checksum = findChecksum(rows.at(i).toLatin1());
        QVERIFY2(checksum, qPrintable(rows.at(i)));
        QCOMPARE(checksum->compute("123456789"), rows.at(i + 1).toUInt(nullptr, 16));
    }
}

void tst_DeviceSimManual::scripts()
{
    const QStringList texts = found("^## Scripts\\n\\n```\\n(.*?)```");
    QCOMPARE(texts.size(), 1);
    QByteArray text = texts.first().toUtf8();
    QBuffer buffer(&text);
    QVERIFY(buffer.open(QIODevice::ReadOnly));
    ScriptReader reader{Framing()};
    QVERIFY2(reader.read(buffer, QStringLiteral("the manual")), qPrintable(reader.errorString()));
}

QTEST_GUILESS_MAIN(tst_DeviceSimManual)
#include "tst_devicesimmanual.moc"
