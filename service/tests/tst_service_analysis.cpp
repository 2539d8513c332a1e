#include "Analysis.h"
#include "ServiceProcess.h"

#include <QtTest>

using namespace tk;
using namespace tk::service;

class TestServiceAnalysis : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void classifies_data() {
        QTest::addColumn<QString>("said");
        QTest::addColumn<QString>("type");
        QTest::addColumn<QString>("severity");
        QTest::newRow("nothing said") << ""
                                      << ""
                                      << "";
        QTest::newRow("only spaces") << "   "
                                     << ""
                                     << "";
        QTest::newRow("does nothing") << "this button does nothing when I click it"
                                      << "bug"
                                      << "high";
        QTest::newRow("crash") << "the app crashed when I saved"
                               << "bug"
                               << "critical";
        QTest::newRow("plain bug") << "the total is wrong here"
                                   << "bug"
                                   << "medium";
        QTest::newRow("confusing") << "this menu is confusing and hard to read"
                                   << "ux"
                                   << "medium";
        QTest::newRow("question mark") << "what does this toggle do?"
                                       << "question"
                                       << "low";
        QTest::newRow("wish") << "it would be nice to add a dark mode"
                              << "improvement"
                              << "low";
        QTest::newRow("praise") << "I love this, looks great"
                                << "praise"
                                << "low";
        QTest::newRow("upper case") << "BROKEN AGAIN"
                                    << "bug"
                                    << "high";
        QTest::newRow("word inside a word") << "debugger window"
                                            << "improvement"
                                            << "low";
    }
    void classifies() {
        QFETCH(QString, said);
        QFETCH(QString, type);
        QFETCH(QString, severity);
        const Classification c = classify(said);
        QCOMPARE(c.type, type);
        QCOMPARE(c.severity, severity);
    }

    void guessesElement() {
        CaptureContext c = test::sampleContext(QStringLiteral("x"));
        auto g = guessElement(c);
        QVERIFY(g);
        QCOMPARE(g->path, QStringLiteral("frame[Checkout]/panel/push button[Pay]"));
        QCOMPARE(g->candidates.first(), g->path);
        QCOMPARE(g->candidates.size(), 3);
        QVERIFY(g->confidence > 0.8 && g->confidence <= 1.0);

        // Without a lasso element the best-fitting element of the chain wins.
        c.ax.lassoAncestor.reset();
        c.pointer.path = {{0, 45, 0}, {600, 45, 0.1}, {600, 450, 0.2}, {0, 450, 0.3}, {1, 46, 0.4}};
        g = guessElement(c);
        QVERIFY(g);
        QCOMPARE(g->path, QStringLiteral("frame[Checkout]/panel"));
        QVERIFY(g->confidence < 1.0);

        c.ax.atPoint.clear();
        QVERIFY(!guessElement(c));
    }

    void lassoOffTheChain() {
        CaptureContext c = test::sampleContext(QStringLiteral("x"));
        c.ax.lassoAncestor =
            AxElement{QStringLiteral("label"), QStringLiteral("Total / VAT"), {}, 300, 200, 50, 20};
        const auto g = guessElement(c);
        QVERIFY(g);
        // Hung under the innermost chain element that encloses it; '/' in titles kept apart.
        QCOMPARE(g->path, QStringLiteral("frame[Checkout]/panel/label[Total   VAT]"));
    }
};

QTEST_GUILESS_MAIN(TestServiceAnalysis)
#include "tst_service_analysis.moc"
