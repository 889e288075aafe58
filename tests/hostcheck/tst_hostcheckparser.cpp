// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tests/hostcheck/hostchecktest.h"

#include <QtCore/QXmlStreamReader>

using namespace hostchecktest;

namespace {

// The numbers of tests/hostcheck/plantedparser.cpp.
constexpr int PlantedParsers = 14;
// The count of two bytes, as the parser reads it.
const char Framing[] = "length 2 big";

QString parserFile(int number)
{
    return QStringLiteral(PLANTED_DIR "/plantedparser%1.so").arg(number);
}

QByteArray message(const QByteArray &content)
{
    return QByteArray(1, static_cast<char>(content.size() / 256))
            + static_cast<char>(content.size() % 256) + content;
}

// 10 KB of messages of many sizes, empty ones among them, and the beginning of one more.
QByteArray recorded()
{
    QByteArray stream;
    for (int i = 0; stream.size() < 10240; ++i)
        stream += message(QByteArray(i * i % 173, static_cast<char>('a' + i % 26)));
    return stream + "\1\2abc";
}

} // namespace

//! hostcheck against parsers that have a fault each, and one that has none.
class tst_HostcheckParser : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void findsNothingInRightParser_data();
    void findsNothingInRightParser();
    void findsPlantedFault_data();
    void findsPlantedFault();
    void findsPlantedFaultWithoutFraming_data();
    void findsPlantedFaultWithoutFraming();
    void showsSmallestInput();
    void findsThatNothingIsConsumed();
    void skipsStreamWithoutMessage();
    void checksLongStreamInPart();
    void writesJunitFile();
    void saysThatJunitFileCannotBeWritten();
    void saysWhatCannotBeChecked_data();
    void saysWhatCannotBeChecked();

private:
    Files files;
};

void tst_HostcheckParser::findsNothingInRightParser_data()
{
    QTest::addColumn<QStringList>("traffic");
    const QString stream = files.write(QStringLiteral("a.stream"), recorded());
    QByteArray lengths;
    for (qsizetype at = 0; at + 5 < recorded().size();) {
        const QByteArray front = recorded().mid(at, 2);
        const int length = static_cast<uchar>(front[0]) * 256 + static_cast<uchar>(front[1]) + 2;
        lengths += QByteArray::number(length) + '\n';
        at += length;
    }
    const QString description =
            files.write(QStringLiteral("b.stream"),
                        QByteArray("# trackers\nframing ") + Framing
                                + "\ntext hello\nhex 00 ff\nmessages 100 0-200\nmessages 20 7\n");
    QTest::newRow("stream alone") << QStringList{QStringLiteral("--stream"), stream};
    QTest::newRow("with framing") << QStringList{QStringLiteral("--stream"), stream,
                                                 QStringLiteral("--framing"),
                                                 QLatin1String(Framing)};
    QTest::newRow("with lengths") << QStringList{QStringLiteral("--stream"), stream,
                                                 QStringLiteral("--messages"),
                                                 files.write(QStringLiteral("lengths"), lengths)};
    QTest::newRow("description") << QStringList{QStringLiteral("--traffic"), description};
}

void tst_HostcheckParser::findsNothingInRightParser()
{
    QFETCH(QStringList, traffic);
    Run run(QStringList{QStringLiteral("parser"), parserFile(0)} + traffic);
    QCOMPARE(run.status(), 0);
    QVERIFY2(run.output().contains("\n10 ok, 0 failed, 1 skipped\n")
                     || run.output().contains("\n9 ok, 0 failed, 2 skipped\n"),
             run.output().constData());
}

void tst_HostcheckParser::findsPlantedFault_data()
{
    QTest::addColumn<int>("number");
    QTest::addColumn<QByteArray>("check");
    const QByteArrayList checks = {"cut-off", "lost",     "cut-off",          "cut-off", "lost",
                                   "stall",   "stall",    "outside",          "outside", "writes",
                                   "endless", "unsteady", "over-consumption", "crash"};
    QCOMPARE(checks.size(), PlantedParsers);
    for (int number = 1; number <= PlantedParsers; ++number)
        QTest::addRow("%d", number) << number << checks.at(number - 1);
}

void tst_HostcheckParser::findsPlantedFault()
{
    QFETCH(int, number);
    QFETCH(QByteArray, check);
    Run run({QStringLiteral("parser"), parserFile(number), QStringLiteral("--time-limit"),
             QStringLiteral("40"), QStringLiteral("--stream"),
             files.write(QStringLiteral("a.stream"), recorded()), QStringLiteral("--framing"),
             QLatin1String(Framing)});
    QCOMPARE(run.status(), 1);
    QVERIFY2(run.failed().contains(check), run.output().constData());
    QVERIFY2(run.output().contains("input"), run.output().constData());
}

// What the parser's own answers show. The first three are consistent in themselves, and the
// seventh.
void tst_HostcheckParser::findsPlantedFaultWithoutFraming_data()
{
    QTest::addColumn<int>("number");
    QTest::addColumn<QByteArray>("check");
    const QByteArrayList checks = {"split",   "split",  "stall",   "",         "outside",
                                   "outside", "writes", "endless", "unsteady", "over-consumption",
                                   "crash"};
    for (int number = 4; number <= PlantedParsers; ++number) {
        if (!checks.at(number - 4).isEmpty())
            QTest::addRow("%d", number) << number << checks.at(number - 4);
    }
}

void tst_HostcheckParser::findsPlantedFaultWithoutFraming()
{
    QFETCH(int, number);
    QFETCH(QByteArray, check);
    Run run({QStringLiteral("parser"), parserFile(number), QStringLiteral("--time-limit"),
             QStringLiteral("40"), QStringLiteral("--stream"),
             files.write(QStringLiteral("a.stream"), recorded())});
    QCOMPARE(run.status(), 1);
    QVERIFY2(run.failed().contains(check), run.output().constData());
}

void tst_HostcheckParser::showsSmallestInput()
{
    // Two messages as one: the smallest are a message and an empty one.
    Run run({QStringLiteral("parser"), parserFile(5), QStringLiteral("--stream"),
             files.write(QStringLiteral("a.stream"), message("hello") + message("you")),
             QStringLiteral("--framing"), QLatin1String(Framing)});
    QCOMPARE(run.status(), 1);
    QVERIFY2(run.output().contains("smallest input that shows it, 4 bytes:\n"
                                   "    0000  00 00 00 00 "),
             run.output().constData());
}

void tst_HostcheckParser::findsThatNothingIsConsumed()
{
    Run run({QStringLiteral("parser"), parserFile(20), QStringLiteral("--stream"),
             files.write(QStringLiteral("a.stream"), recorded()), QStringLiteral("--framing"),
             QLatin1String(Framing)});
    QCOMPARE(run.status(), 1);
    QCOMPARE(run.failed(), QByteArrayList({"messages", "stall"}));
}

void tst_HostcheckParser::skipsStreamWithoutMessage()
{
    Run run({QStringLiteral("parser"), parserFile(0), QStringLiteral("--stream"),
             files.write(QStringLiteral("a.stream"), message("abc").chopped(1)),
             QStringLiteral("--framing"), QLatin1String(Framing)});
    QCOMPARE(run.status(), 0);
    QVERIFY2(run.output().startsWith("skipped a.stream: messages: no whole message"),
             run.output().constData());
}

// Of 2 MB some messages, and a fault in all of them is found.
void tst_HostcheckParser::checksLongStreamInPart()
{
    QByteArray stream;
    while (stream.size() < 2000000)
        stream += recorded().chopped(5);
    const QStringList traffic = {QStringLiteral("--stream"),
                                 files.write(QStringLiteral("a.stream"), stream),
                                 QStringLiteral("--framing"), QLatin1String(Framing)};
    Run right(QStringList{QStringLiteral("parser"), parserFile(0)} + traffic);
    QCOMPARE(right.status(), 0);
    const QRegularExpression calls(QStringLiteral("; (\\d+) calls; \\d+ messages left out\n"));
    const auto match = calls.match(QString::fromLatin1(right.output()));
    QVERIFY2(match.hasMatch(), right.output().constData());
    QVERIFY2(match.captured(1).toInt() < 2000000, right.output().constData());

    Run wrong(QStringList{QStringLiteral("parser"), parserFile(2)} + traffic);
    QCOMPARE(wrong.status(), 1);
    QCOMPARE(wrong.failed(), QByteArrayList{"lost"});
}

// A fault that was found counts for more than the file.
void tst_HostcheckParser::saysThatJunitFileCannotBeWritten()
{
    const QString stream = files.write(QStringLiteral("a.stream"), recorded());
    for (const int number : {0, 2}) {
        Run run({QStringLiteral("parser"), parserFile(number), QStringLiteral("--stream"), stream,
                 QStringLiteral("--framing"), QLatin1String(Framing), QStringLiteral("--junit"),
                 QStringLiteral("/nowhere/junit.xml")});
        QCOMPARE(run.status(), number == 0 ? 2 : 1);
        QVERIFY2(run.errors().contains("cannot write /nowhere/junit.xml"),
                 run.errors().constData());
    }
}

void tst_HostcheckParser::writesJunitFile()
{
    const QString junit = files.path(QStringLiteral("junit.xml"));
    Run run({QStringLiteral("parser"), parserFile(2), QStringLiteral("--stream"),
             files.write(QStringLiteral("a.stream"), recorded()), QStringLiteral("--framing"),
             QLatin1String(Framing), QStringLiteral("--junit"), junit});
    QCOMPARE(run.status(), 1);
    QFile file(junit);
    QVERIFY(file.open(QIODevice::ReadOnly));
    QXmlStreamReader xml(&file);
    QStringList failures;
    QString testcase;
    int testcases = 0;
    while (!xml.atEnd()) {
        if (xml.readNext() != QXmlStreamReader::StartElement)
            continue;
        if (xml.name() == QLatin1String("testcase")) {
            testcase = xml.attributes().value(QLatin1String("name")).toString();
            ++testcases;
        }
        if (xml.name() == QLatin1String("failure"))
            failures += testcase;
    }
    QVERIFY2(!xml.hasError(), qPrintable(xml.errorString()));
    QCOMPARE(testcases, 11);
    QCOMPARE(failures, QStringList{QStringLiteral("a.stream: lost")});
}

void tst_HostcheckParser::saysWhatCannotBeChecked_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QByteArray>("text");
    const QString stream = files.write(QStringLiteral("a.stream"), recorded());
    const QString parser = parserFile(0);
    const auto words = [](const char *text) {
        return QString::fromLatin1(text).split(QLatin1Char(' '), Qt::SkipEmptyParts);
    };
    QTest::newRow("nothing") << QStringList() << QByteArray("parser or plugin?");
    QTest::newRow("no traffic") << words("parser") + QStringList{parser}
                                << QByteArray("no traffic");
    QTest::newRow("no file") << words("parser /nowhere.so --stream") + QStringList{stream}
                             << QByteArray("/nowhere.so");
    QTest::newRow("no parser") << words("parser " HOSTCHECK_FILE " --stream") + QStringList{stream}
                               << QByteArray(HOSTCHECK_FILE);
    QTest::newRow("no stream") << words("parser") + QStringList{parser}
                    + words("--stream /nowhere.stream")
                               << QByteArray("/nowhere.stream: ");
    QTest::newRow("framing") << words("parser") + QStringList{parser}
                    + words("--framing odd --stream") + QStringList{stream}
                             << QByteArray("no such framing: odd");
    QTest::newRow("lengths") << words("parser") + QStringList{parser} + words("--stream")
                    + QStringList{stream, QStringLiteral("--messages"),
                                  files.write(QStringLiteral("long"), "99999")}
                             << QByteArray("beyond the stream: 99999");
    QTest::newRow("regex") << words("parser") + QStringList{parser} + words("--only ( --stream")
                    + QStringList{stream}
                           << QByteArray("--only: ");
    QTest::newRow("no check") << words("parser") + QStringList{parser}
                    + words("--only nosuch --stream") + QStringList{stream}
                              << QByteArray("no check of this name");
    QTest::newRow("no check of a host")
            << words("parser --host cat --only nosuch --framing lines --stream")
                    + QStringList{stream}
            << QByteArray("no check of this name");
}

void tst_HostcheckParser::saysWhatCannotBeChecked()
{
    QFETCH(QStringList, arguments);
    QFETCH(QByteArray, text);
    Run run(arguments);
    QCOMPARE(run.status(), 2);
    QVERIFY2(run.errors().contains(text), run.errors().constData());
    QCOMPARE(run.output(), QByteArray());
}

QTEST_GUILESS_MAIN(tst_HostcheckParser)
#include "tst_hostcheckparser.moc"
