#include "context/AX.h"

#include <QTest>

using namespace tk;

namespace {

// An element tree of rectangles: hit testing finds the deepest box holding the
// point, later siblings on top, as a real toolkit answers.
struct Node {
    QString role;
    QRectF frame;
    std::vector<Node> children;
};

class ScriptedTree final : public platform::Accessibility {
public:
    explicit ScriptedTree(Node root, bool trusted = true)
        : m_root(std::move(root)), m_trusted(trusted) {}
    bool trusted() override { return m_trusted; }
    std::vector<AxElement> chain(QPointF p, int depth) override {
        std::vector<const Node*> path;
        if (!m_root.frame.contains(p))
            return {};
        const Node* at = &m_root;
        path.push_back(at);
        for (bool deeper = true; deeper;) {
            deeper = false;
            for (auto it = at->children.rbegin(); it != at->children.rend(); ++it)
                if (it->frame.contains(p)) {
                    at = &*it;
                    path.push_back(at);
                    deeper = true;
                    break;
                }
        }
        std::vector<AxElement> out;
        for (auto it = path.rbegin(); it != path.rend() && int(out.size()) < depth; ++it)
            out.push_back(AX::describe({(*it)->role, QString(), QString(), {}, {}, (*it)->frame}));
        return out;
    }

private:
    Node m_root;
    bool m_trusted;
};

std::vector<PointerSample> lasso(QRectF r, int points = 8) {
    std::vector<PointerSample> out;
    for (int i = 0; i < points; ++i) {
        const double a = 2 * M_PI * i / points;
        out.push_back({r.center().x() + r.width() / 2 * std::cos(a),
                       r.center().y() + r.height() / 2 * std::sin(a), 0.05 * i});
    }
    return out;
}

Node window() {
    // frame > panel > (toolbar > [button A, button B]) and a list of rows
    Node buttonA{"push button", {20, 20, 100, 40}, {{"label", {30, 30, 80, 20}, {}}}};
    Node buttonB{"push button", {140, 20, 100, 40}, {}};
    Node toolbar{"tool bar", {10, 10, 400, 60}, {buttonA, buttonB}};
    std::vector<Node> rows;
    for (int i = 0; i < 5; ++i)
        rows.push_back({"list item", {10, 100.0 + 30 * i, 400, 30}, {}});
    Node list{"list", {10, 100, 400, 150}, rows};
    Node panel{"panel", {0, 0, 600, 400}, {toolbar, list}};
    return Node{"frame", {0, 0, 600, 400}, {panel}};
}

} // namespace

class TestAX : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void describe_data();
    void describe();
    void lassoCases_data();
    void lassoCases();
    void heightsAreNotCompared();
    void misalignedDepths();
};

void TestAX::describe_data() {
    QTest::addColumn<AxRaw>("raw");
    QTest::addColumn<QString>("title");
    QTest::addColumn<QString>("value");
    QTest::addColumn<QString>("role");
    const QString emoji = QString::fromUtf8("👍🏽");
    QTest::newRow("name") << AxRaw{"push button", "Save", "Stores it", {}, {}, {}} << "Save"
                          << ""
                          << "push button";
    QTest::newRow("empty name: description")
        << AxRaw{"push button", "", "Close", {}, {}, {}} << "Close"
        << ""
        << "push button";
    QTest::newRow("nothing readable") << AxRaw{} << ""
                                      << ""
                                      << "?";
    QTest::newRow("text cut at 120")
        << AxRaw{"entry", "", {}, QString(300, 'x'), {}, {}} << "" << QString(120, 'x') << "entry";
    QTest::newRow("cut counts what a reader sees")
        << AxRaw{"label", "", {}, emoji.repeated(130), {}, {}} << "" << emoji.repeated(120)
        << "label";
    QTest::newRow("text before value") << AxRaw{"slider", "", {}, "half", 50, {}} << ""
                                       << "half"
                                       << "slider";
    QTest::newRow("number 1") << AxRaw{"slider", "", {}, {}, 1.0, {}} << ""
                              << "1"
                              << "slider";
    QTest::newRow("number 0.25") << AxRaw{"slider", "", {}, {}, 0.25, {}} << ""
                                 << "0.25"
                                 << "slider";
    QTest::newRow("big number") << AxRaw{"spin button", "", {}, {}, 2500000.0, {}} << ""
                                << "2500000"
                                << "spin button";
}

void TestAX::describe() {
    QFETCH(AxRaw, raw);
    QFETCH(QString, title);
    QFETCH(QString, value);
    QFETCH(QString, role);
    const AxElement e = AX::describe(raw);
    QCOMPARE(e.title, title);
    QCOMPARE(e.value, value);
    QCOMPARE(e.role, role);
}

void TestAX::lassoCases_data() {
    QTest::addColumn<std::vector<PointerSample>>("path");
    QTest::addColumn<bool>("trusted");
    QTest::addColumn<QString>("role");
    QTest::addColumn<QRectF>("frame");
    auto four = lasso({25, 25, 60, 20});
    four.resize(4);
    QTest::newRow("four points: nothing") << four << true << "" << QRectF();
    QTest::newRow("not trusted") << lasso({25, 25, 60, 20}) << false << "" << QRectF();
    QTest::newRow("all on one leaf")
        << lasso({35, 32, 60, 15}) << true << "label" << QRectF(30, 30, 80, 20);
    QTest::newRow("inside one button, corners off the label")
        << lasso({22, 22, 96, 36}) << true << "push button" << QRectF(20, 20, 100, 40);
    QTest::newRow("around two buttons")
        << lasso({15, 15, 240, 50}) << true << "tool bar" << QRectF(10, 10, 400, 60);
    // Only the centre lands on the window; every corner is outside it.
    QTest::newRow("one surviving chain")
        << std::vector<PointerSample>{{-50, 5, 0},
                                      {650, 5, 0},
                                      {650, 395, 0},
                                      {-50, 395, 0},
                                      {-50, 6, 0}}
        << true << "list item" << QRectF(10, 190, 400, 30); // the centre's own hit
}

void TestAX::lassoCases() {
    QFETCH(std::vector<PointerSample>, path);
    QFETCH(bool, trusted);
    QFETCH(QString, role);
    QFETCH(QRectF, frame);
    ScriptedTree tree(window(), trusted);
    const auto got = AX::lassoAncestor(tree, path);
    QCOMPARE(got.has_value(), !role.isEmpty());
    if (!got)
        return;
    QCOMPARE(got->role, role);
    QCOMPARE(QRectF(got->x, got->y, got->w, got->h), frame);
}

void TestAX::heightsAreNotCompared() {
    // Two rows of equal left, top and width but different heights, one over the
    // other: they count as the same element.
    Node tall{"list item", {0, 0, 200, 100}, {}};
    Node shortRow{"list item", {0, 0, 200, 40}, {}};
    Node root{"frame", {0, 0, 300, 300}, {tall, shortRow}};
    ScriptedTree tree(root);
    const auto got = AX::lassoAncestor(tree, lasso({2, 2, 196, 96}));
    QVERIFY(got);
    QCOMPARE(got->role, QStringLiteral("list item"));
}

void TestAX::misalignedDepths() {
    // Eleven levels under the frame on one side, two on the other: the chains,
    // capped at ten, start at different ancestors, so nothing is agreed.
    Node deep{"filler", {0, 0, 100, 300}, {}};
    Node* at = &deep;
    for (int i = 0; i < 10; ++i) {
        at->children.push_back({"filler", {0, 0, 100, 300}, {}});
        at = &at->children.back();
    }
    Node shallow{"filler", {100, 0, 100, 300}, {}};
    Node root{"frame", {0, 0, 200, 300}, {deep, shallow}};
    ScriptedTree tree(root);
    QVERIFY(!AX::lassoAncestor(tree, lasso({20, 20, 160, 260})));
}

QTEST_GUILESS_MAIN(TestAX)
#include "tst_ax.moc"
