// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/configuration.h"

#include <QtCore/QTemporaryDir>
#include <QtTest/QtTest>

#include <cerrno>

using namespace host;

class tst_HostConfiguration : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void emptyWithoutFile();
    void fileContents();
    void settingsOverFile();
    void refused_data();
    void refused();
    void missingFile();
    void folder();
    void readAgain();

private:
    void write(const QByteArray &content) const;

    QTemporaryDir folderOfTest;
    Options options;
};

void tst_HostConfiguration::init()
{
    options = {};
    options.configFile = folderOfTest.filePath(QStringLiteral("config.json"));
}

void tst_HostConfiguration::write(const QByteArray &content) const
{
    QFile file(options.configFile);
    QVERIFY(file.open(QIODevice::WriteOnly));
    QCOMPARE(file.write(content), content.size());
}

void tst_HostConfiguration::emptyWithoutFile()
{
    options.configFile.clear();
    ConfigurationReader reader(options);
    QVERIFY(reader.read());
    QCOMPARE(reader.configuration(), QJsonObject());
}

void tst_HostConfiguration::fileContents()
{
    write(R"({"port": 1234, "ipAddr": "::1"})");
    ConfigurationReader reader(options);
    QVERIFY(reader.read());
    const QJsonObject expected = {{QStringLiteral("port"), 1234},
                                  {QStringLiteral("ipAddr"), QStringLiteral("::1")}};
    QCOMPARE(reader.configuration(), expected);
}

void tst_HostConfiguration::settingsOverFile()
{
    write(R"({"port": 1234, "timeout": 5})");
    options.settings = {{QStringLiteral("port"), 1},
                        {QStringLiteral("threadpoolSize"), 2},
                        {QStringLiteral("port"), 3}};
    ConfigurationReader reader(options);
    QVERIFY(reader.read());
    const QJsonObject expected = {{QStringLiteral("port"), 3},
                                  {QStringLiteral("timeout"), 5},
                                  {QStringLiteral("threadpoolSize"), 2}};
    QCOMPARE(reader.configuration(), expected);
}

void tst_HostConfiguration::refused_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QString>("complaint");

    QTest::newRow("empty") << QByteArray() << "is not JSON";
    QTest::newRow("text") << QByteArray("port: 1") << "is not JSON";
    QTest::newRow("unfinished") << QByteArray("{\"port\": 1") << "is not JSON";
    QTest::newRow("two objects") << QByteArray("{} {}") << "is not JSON";
    QTest::newRow("array") << QByteArray("[]") << "is not a JSON object";
}

void tst_HostConfiguration::refused()
{
    QFETCH(QByteArray, content);
    QFETCH(QString, complaint);
    write(content);
    ConfigurationReader reader(options);
    QVERIFY(!reader.read());
    QVERIFY2(reader.errorString().contains(complaint), qPrintable(reader.errorString()));
    QVERIFY(reader.errorString().contains(options.configFile));
}

void tst_HostConfiguration::missingFile()
{
    options.configFile += QLatin1String(".missing");
    ConfigurationReader reader(options);
    QVERIFY(!reader.read());
    QCOMPARE(reader.errorString(),
             QStringLiteral("Cannot read %1: %2").arg(options.configFile, qt_error_string(ENOENT)));
}

void tst_HostConfiguration::folder()
{
    options.configFile = folderOfTest.path();
    ConfigurationReader reader(options);
    QVERIFY(!reader.read());
    QVERIFY(reader.errorString().startsWith(QLatin1String("Cannot read ")));
}

void tst_HostConfiguration::readAgain()
{
    write(R"({"port": 1})");
    ConfigurationReader reader(options);
    QVERIFY(reader.read());
    write("[]");
    QVERIFY(!reader.read());
    write(R"({"timeout": 2})");
    QVERIFY(reader.read());
    QCOMPARE(reader.configuration(), QJsonObject({{QStringLiteral("timeout"), 2}}));
}

QTEST_GUILESS_MAIN(tst_HostConfiguration)
#include "tst_hostconfiguration.moc"
