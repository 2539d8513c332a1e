#include "platform/atspi/AtspiAccessibility.h"

#include "context/AX.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVariant>

#ifdef TK_HAVE_ATSPI
#undef signals // GLib's headers use the word
#include <atspi/atspi.h>
#endif

#include <mutex>

namespace tk::platform {
namespace {

constexpr int kBusTimeoutMs = 1000;

#ifdef TK_HAVE_ATSPI
// A hung application costs at most this per call, and one failed call ends the walk.
constexpr int kCallTimeoutMs = 1000;
constexpr int kMaxDescent = 64;

// Owns one reference; libatspi hands out new ones from every getter.
struct Ref {
    AtspiAccessible* p = nullptr;
    Ref() = default;
    explicit Ref(AtspiAccessible* a) : p(a) {}
    Ref(Ref&& o) noexcept : p(std::exchange(o.p, nullptr)) {}
    Ref& operator=(Ref&& o) noexcept {
        reset(std::exchange(o.p, nullptr));
        return *this;
    }
    ~Ref() { reset(); }
    void reset(AtspiAccessible* a = nullptr) {
        if (p)
            g_object_unref(p);
        p = a;
    }
    explicit operator bool() const { return p != nullptr; }
};

// Every failure is an error object to drop; returns whether there was one.
bool failed(GError*& e) {
    if (!e)
        return false;
    g_error_free(e);
    e = nullptr;
    return true;
}

QString take(gchar* s) {
    const QString out = QString::fromUtf8(s ? s : "");
    g_free(s);
    return out;
}
#endif

class AtspiAccessibility final : public Accessibility {
public:
    explicit AtspiAccessibility(WindowsAt windowsAt) : m_windowsAt(std::move(windowsAt)) {}

    bool trusted() override {
        QDBusConnection bus = QDBusConnection::sessionBus();
        if (!bus.isConnected())
            return false;
        QDBusMessage msg = QDBusMessage::createMethodCall(
            QStringLiteral("org.a11y.Bus"), QStringLiteral("/org/a11y/bus"),
            QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Get"));
        msg << QStringLiteral("org.a11y.Status") << QStringLiteral("IsEnabled");
        const QDBusMessage reply = bus.call(msg, QDBus::Block, kBusTimeoutMs);
        if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty())
            return false;
        const QVariant v = reply.arguments().first().value<QDBusVariant>().variant();
        return v.typeId() == QMetaType::Bool && v.toBool();
    }

    std::vector<AxElement> chain(QPointF point, int depth) override {
#ifdef TK_HAVE_ATSPI
        if (depth <= 0 || !m_windowsAt)
            return {};
        // libatspi is not thread-safe; writers may overlap.
        std::lock_guard guard(m_mutex);
        if (!ready())
            return {};
        const int x = int(point.x()), y = int(point.y());
        Ref hit = hitTest(x, y);
        std::vector<AxElement> out;
        GError* e = nullptr;
        while (hit && int(out.size()) < depth) {
            AtspiRole role = atspi_accessible_get_role(hit.p, &e);
            if (failed(e)) // one more try: a slow answer is not a dead application
                role = atspi_accessible_get_role(hit.p, &e);
            if (failed(e) || role == ATSPI_ROLE_APPLICATION)
                break;
            out.push_back(AX::describe(read(hit.p)));
            Ref parent(atspi_accessible_get_parent(hit.p, &e));
            if (failed(e))
                parent = Ref(atspi_accessible_get_parent(hit.p, &e));
            if (failed(e))
                break;
            hit = std::move(parent);
        }
        return out;
#else
        Q_UNUSED(point)
        Q_UNUSED(depth)
        return {};
#endif
    }

    std::optional<Document> shownDocument(qint64 pid, const QString& attribute) override {
#ifdef TK_HAVE_ATSPI
        std::lock_guard guard(m_mutex);
        if (!ready())
            return std::nullopt;
        Ref app = appOf(pid);
        if (!app)
            return std::nullopt;
        Ref frame = activeFrame(app.p);
        if (!frame)
            return std::nullopt;
        for (Ref& doc : documents(frame.p)) {
            Document d;
            d.address = attributeOf(doc.p, attribute);
            if (d.address.isEmpty() || !hasArea(doc.p))
                continue; // the empty frames browsers keep around
            GError* e = nullptr;
            d.name = take(atspi_accessible_get_name(doc.p, &e));
            failed(e);
            return d;
        }
        return std::nullopt;
#else
        Q_UNUSED(pid)
        Q_UNUSED(attribute)
        return std::nullopt;
#endif
    }

private:
#ifdef TK_HAVE_ATSPI
    Ref appOf(qint64 pid) {
        GError* e = nullptr;
        Ref desktop(atspi_get_desktop(0));
        if (!desktop)
            return {};
        const int apps = atspi_accessible_get_child_count(desktop.p, &e);
        if (failed(e))
            return {};
        for (int i = 0; i < apps; ++i) {
            Ref app(atspi_accessible_get_child_at_index(desktop.p, i, &e));
            if (failed(e) || !app)
                continue;
            const guint appPid = atspi_accessible_get_process_id(app.p, &e);
            if (!failed(e) && qint64(appPid) == pid)
                return app;
        }
        return {};
    }

    static bool hasState(AtspiAccessible* a, AtspiStateType state) {
        AtspiStateSet* set = atspi_accessible_get_state_set(a);
        if (!set)
            return false;
        const bool on = atspi_state_set_contains(set, state);
        g_object_unref(set);
        return on;
    }

    Ref activeFrame(AtspiAccessible* app) {
        GError* e = nullptr;
        const int n = atspi_accessible_get_child_count(app, &e);
        if (failed(e))
            return {};
        Ref showing;
        for (int i = 0; i < n; ++i) {
            Ref frame(atspi_accessible_get_child_at_index(app, i, &e));
            if (failed(e) || !frame)
                continue;
            if (hasState(frame.p, ATSPI_STATE_ACTIVE))
                return frame;
            if (!showing && hasState(frame.p, ATSPI_STATE_SHOWING))
                showing = std::move(frame);
        }
        return showing;
    }

    // Web documents under `root`, in tree order: one Collection query when the
    // application answers it, else a walk with a budget.
    std::vector<Ref> documents(AtspiAccessible* root) {
        std::vector<Ref> out;
        GError* e = nullptr;
        if (AtspiCollection* c = atspi_accessible_get_collection_iface(root)) {
            GArray* roles = g_array_new(FALSE, FALSE, sizeof(gint));
            const gint role = ATSPI_ROLE_DOCUMENT_WEB;
            g_array_append_val(roles, role);
            AtspiMatchRule* rule = atspi_match_rule_new(
                nullptr, ATSPI_Collection_MATCH_ALL, nullptr, ATSPI_Collection_MATCH_ALL, roles,
                ATSPI_Collection_MATCH_ANY, nullptr, ATSPI_Collection_MATCH_ALL, FALSE);
            GArray* found = atspi_collection_get_matches(
                c, rule, ATSPI_Collection_SORT_ORDER_CANONICAL, 0, TRUE, &e);
            if (!failed(e) && found) {
                for (guint i = 0; i < found->len; ++i)
                    out.emplace_back(g_array_index(found, AtspiAccessible*, i));
            }
            if (found)
                g_array_free(found, TRUE);
            g_object_unref(rule);
            g_array_free(roles, TRUE);
            g_object_unref(c);
            if (!out.empty())
                return out;
        }
        int budget = 3000;
        std::vector<Ref> stack;
        stack.emplace_back(Ref(static_cast<AtspiAccessible*>(g_object_ref(root))));
        while (!stack.empty() && budget-- > 0) {
            Ref at = std::move(stack.back());
            stack.pop_back();
            const AtspiRole role = atspi_accessible_get_role(at.p, &e);
            if (failed(e))
                continue;
            if (role == ATSPI_ROLE_DOCUMENT_WEB) {
                out.push_back(std::move(at)); // pages inside it are its own
                continue;
            }
            const int n = atspi_accessible_get_child_count(at.p, &e);
            if (failed(e))
                continue;
            for (int i = n - 1; i >= 0; --i) {
                Ref child(atspi_accessible_get_child_at_index(at.p, i, &e));
                if (!failed(e) && child)
                    stack.push_back(std::move(child));
            }
        }
        return out;
    }

    // Browsers put the address among the document's own attributes (the
    // Document interface); the object attributes are the fallback.
    static QString attributeOf(AtspiAccessible* a, const QString& key) {
        GError* e = nullptr;
        QByteArray k = key.toUtf8();
        if (AtspiDocument* doc = atspi_accessible_get_document_iface(a)) {
            gchar* v = atspi_document_get_document_attribute_value(doc, k.data(), &e);
            g_object_unref(doc);
            const QString out = QString::fromUtf8(v ? v : "");
            g_free(v);
            if (!failed(e) && !out.isEmpty())
                return out;
        }
        GHashTable* attrs = atspi_accessible_get_attributes(a, &e);
        if (failed(e) || !attrs)
            return {};
        const auto* v = static_cast<const gchar*>(g_hash_table_lookup(attrs, k.constData()));
        const QString out = QString::fromUtf8(v ? v : "");
        g_hash_table_unref(attrs);
        return out;
    }

    static bool hasArea(AtspiAccessible* a) {
        AtspiComponent* c = atspi_accessible_get_component_iface(a);
        if (!c)
            return false;
        GError* e = nullptr;
        AtspiRect* r = atspi_component_get_extents(c, ATSPI_COORD_TYPE_SCREEN, &e);
        // Firefox reports its document's own extents as -1: not zero, so shown.
        const bool area = !failed(e) && r && r->width != 0 && r->height != 0;
        if (r)
            g_free(r);
        g_object_unref(c);
        return area;
    }

    bool ready() {
        if (!m_initDone) {
            m_initDone = true;
            m_initOk = atspi_init() >= 0;
        }
        if (m_initOk)
            atspi_set_timeout(kCallTimeoutMs, kCallTimeoutMs);
        return m_initOk;
    }

    Ref hitTest(int x, int y) {
        // The topmost window under the point decides which application answers.
        const auto pids = m_windowsAt(QPoint(x, y));
        if (pids.empty())
            return {};
        Ref app = appOf(pids.front());
        if (!app)
            return {}; // that window's application is not on the bus
        Ref frame = frameAt(app.p, x, y);
        return frame ? descend(std::move(frame), x, y) : Ref{};
    }

    Ref frameAt(AtspiAccessible* app, int x, int y) {
        GError* e = nullptr;
        const int n = atspi_accessible_get_child_count(app, &e);
        if (failed(e))
            return {};
        for (int i = 0; i < n; ++i) {
            Ref frame(atspi_accessible_get_child_at_index(app, i, &e));
            if (failed(e) || !frame)
                continue;
            AtspiComponent* c = atspi_accessible_get_component_iface(frame.p);
            if (!c)
                continue;
            const bool inside = atspi_component_contains(c, x, y, ATSPI_COORD_TYPE_SCREEN, &e);
            g_object_unref(c);
            if (!failed(e) && inside)
                return frame;
        }
        return {};
    }

    Ref descend(Ref at, int x, int y) {
        GError* e = nullptr;
        for (int i = 0; i < kMaxDescent; ++i) {
            AtspiComponent* c = atspi_accessible_get_component_iface(at.p);
            if (!c)
                break;
            Ref child(
                atspi_component_get_accessible_at_point(c, x, y, ATSPI_COORD_TYPE_SCREEN, &e));
            g_object_unref(c);
            if (failed(e) || !child || child.p == at.p)
                break;
            at = std::move(child);
        }
        return at;
    }

    AxRaw read(AtspiAccessible* a) {
        AxRaw raw;
        GError* e = nullptr;
        // The role is usually cached already; its name is a local table, so
        // only one call can be slow, and it gets a second chance.
        AtspiRole role = atspi_accessible_get_role(a, &e);
        if (failed(e))
            role = atspi_accessible_get_role(a, &e);
        if (!failed(e))
            raw.role = take(atspi_role_get_name(role));
        if (QString name = take(atspi_accessible_get_name(a, &e)); !failed(e))
            raw.name = name;
        if (QString desc = take(atspi_accessible_get_description(a, &e)); !failed(e))
            raw.description = desc;
        if (AtspiText* t = atspi_accessible_get_text_iface(a)) {
            const int count = atspi_text_get_character_count(t, &e);
            if (!failed(e)) {
                // A little past the cut, so whole characters survive it.
                QString text =
                    take(atspi_text_get_text(t, 0, std::min(count, 4 * AX::kValueLength), &e));
                if (!failed(e) && count > 0)
                    raw.text = text;
            }
            g_object_unref(t);
        }
        if (!raw.text) {
            if (AtspiValue* v = atspi_accessible_get_value_iface(a)) {
                const double value = atspi_value_get_current_value(v, &e);
                if (!failed(e))
                    raw.value = value;
                g_object_unref(v);
            }
        }
        if (AtspiComponent* c = atspi_accessible_get_component_iface(a)) {
            AtspiRect* r = atspi_component_get_extents(c, ATSPI_COORD_TYPE_SCREEN, &e);
            if (!failed(e) && r)
                raw.extents = QRectF(r->x, r->y, r->width, r->height);
            if (r)
                g_free(r);
            g_object_unref(c);
        }
        return raw;
    }

    std::mutex m_mutex;
    bool m_initDone = false;
    bool m_initOk = false;
#endif
    WindowsAt m_windowsAt;
};

} // namespace

std::unique_ptr<Accessibility> makeAtspiAccessibility(WindowsAt windowsAt) {
    return std::make_unique<AtspiAccessibility>(std::move(windowsAt));
}

} // namespace tk::platform
