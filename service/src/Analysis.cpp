#include "Analysis.h"

#include <QRegularExpression>

#include <algorithm>
#include <array>
#include <cmath>
#include <string_view>

namespace tk::service {

namespace {

struct Rule {
    const char* type;
    std::array<const char*, 16> words;
};

// Whole words or phrases, matched on the lower-cased transcript.
constexpr std::array<Rule, 5> kRules{{
    {"bug",
     {"bug", "broken", "crash", "crashes", "crashed", "error", "doesn't work", "does nothing",
      "not working", "fails", "failed", "wrong", "freezes", "stuck", "can't", "won't"}},
    {"ux",
     {"confusing", "hard to", "unclear", "too small", "too big", "hidden", "cluttered", "ugly",
      "contrast", "misaligned", "alignment", "layout", "hard to read", "annoying", "took me",
      "where is"}},
    {"question",
     {"how do", "how does", "why does", "why is", "what is", "what does", "is there", "can i",
      "should i", "where do", "who", "when does", "does it", "is it", "how can", "what happens"}},
    {"improvement",
     {"should", "could", "would be nice", "add", "maybe", "suggest", "instead", "wish", "better if",
      "it would", "option to", "allow", "let me", "support", "nice to have", "please add"}},
    {"praise",
     {"love", "great", "nice", "awesome", "perfect", "good job", "beautiful", "like this",
      "well done", "excellent", "amazing", "works well", "fantastic", "cool", "brilliant",
      "smooth"}},
}};

constexpr std::array<const char*, 8> kCritical{"crash",   "crashes", "crashed",  "data loss",
                                               "lost my", "freezes", "security", "blocker"};
constexpr std::array<const char*, 8> kHigh{"broken",       "can't",       "cannot", "doesn't work",
                                           "does nothing", "not working", "fails",  "failed"};

bool hasPhrase(const QString& text, const char* phrase) {
    const QString p = QString::fromUtf8(phrase);
    qsizetype from = 0;
    while (true) {
        const qsizetype at = text.indexOf(p, from);
        if (at < 0)
            return false;
        const qsizetype end = at + p.size();
        const bool startOk = at == 0 || !text.at(at - 1).isLetterOrNumber();
        const bool endOk = end >= text.size() || !text.at(end).isLetterOrNumber();
        if (startOk && endOk)
            return true;
        from = at + 1;
    }
}

template <size_t N> bool hasAny(const QString& text, const std::array<const char*, N>& words) {
    return std::any_of(words.begin(), words.end(),
                       [&](const char* w) { return w && hasPhrase(text, w); });
}

struct Box {
    double x0, y0, x1, y1;
    double area() const { return std::max(0.0, x1 - x0) * std::max(0.0, y1 - y0); }
};

Box frameOf(const AxElement& e) {
    return {e.x, e.y, e.x + e.w, e.y + e.h};
}

double overlap(const Box& a, const Box& b) {
    const Box i{std::max(a.x0, b.x0), std::max(a.y0, b.y0), std::min(a.x1, b.x1),
                std::min(a.y1, b.y1)};
    const double u = a.area() + b.area() - i.area();
    return u > 0 ? i.area() / u : 0.0;
}

bool sameFrame(const AxElement& a, const AxElement& b) {
    return std::abs(a.x - b.x) < 2 && std::abs(a.y - b.y) < 2 && std::abs(a.w - b.w) < 2 &&
           std::abs(a.h - b.h) < 2;
}

QString segment(const AxElement& e) {
    QString role = e.role.trimmed().isEmpty() ? QStringLiteral("?") : e.role.trimmed();
    role.replace(QLatin1Char('/'), QLatin1Char(' '));
    QString title = e.title.simplified().left(60);
    title.replace(QLatin1Char('/'), QLatin1Char(' ')).replace(QLatin1Char(']'), QLatin1Char(')'));
    return title.isEmpty() ? role : role + QLatin1Char('[') + title + QLatin1Char(']');
}

} // namespace

Classification classify(const QString& transcript) {
    const QString text = transcript.simplified().toLower();
    if (text.isEmpty())
        return {};
    Classification c;
    int best = 0;
    for (const Rule& r : kRules) {
        int hits = 0;
        for (const char* w : r.words)
            hits += (w && hasPhrase(text, w)) ? 1 : 0;
        if (r.type == std::string_view("question") && text.endsWith(QLatin1Char('?')))
            hits += 2;
        // Earlier rules win ties: a complaint phrased as a wish is still a bug.
        if (hits > best) {
            best = hits;
            c.type = QString::fromUtf8(r.type);
        }
    }
    if (c.type.isEmpty())
        c.type = QStringLiteral("improvement");
    if (c.type == QLatin1String("bug"))
        c.severity = hasAny(text, kCritical) ? QStringLiteral("critical")
                     : hasAny(text, kHigh)   ? QStringLiteral("high")
                                             : QStringLiteral("medium");
    else if (c.type == QLatin1String("ux"))
        c.severity = QStringLiteral("medium");
    else
        c.severity = QStringLiteral("low");
    return c;
}

QString elementPath(const std::vector<AxElement>& outermostFirst) {
    QStringList parts;
    for (const AxElement& e : outermostFirst)
        parts << segment(e);
    return parts.join(QLatin1Char('/'));
}

std::optional<ElementGuess> guessElement(const CaptureContext& c) {
    const std::vector<AxElement>& chain = c.ax.atPoint; // hit element first
    if (chain.empty() && !c.ax.lassoAncestor)
        return std::nullopt;

    Box lasso{c.pointer.downAt[0] - 4, c.pointer.downAt[1] - 4, c.pointer.downAt[0] + 4,
              c.pointer.downAt[1] + 4};
    if (c.pointer.path.size() >= 2) {
        lasso = {c.pointer.path[0][0], c.pointer.path[0][1], c.pointer.path[0][0],
                 c.pointer.path[0][1]};
        for (const auto& s : c.pointer.path) {
            lasso.x0 = std::min(lasso.x0, s[0]);
            lasso.y0 = std::min(lasso.y0, s[1]);
            lasso.x1 = std::max(lasso.x1, s[0]);
            lasso.y1 = std::max(lasso.y1, s[1]);
        }
    }

    struct Option {
        QString path;
        double score;
        bool lasso;
    };
    std::vector<Option> options;
    const auto pathTo = [&chain](size_t index) {
        std::vector<AxElement> outer(chain.begin() + static_cast<std::ptrdiff_t>(index),
                                     chain.end());
        std::reverse(outer.begin(), outer.end());
        return elementPath(outer);
    };
    std::optional<size_t> lassoIndex;
    for (size_t i = 0; i < chain.size(); ++i) {
        const bool isLasso = c.ax.lassoAncestor && sameFrame(chain[i], *c.ax.lassoAncestor);
        if (isLasso && !lassoIndex)
            lassoIndex = i;
        options.push_back({pathTo(i), overlap(lasso, frameOf(chain[i])), isLasso});
    }
    if (c.ax.lassoAncestor && !lassoIndex) {
        // Not on the pointed chain: hang it under the innermost ancestor enclosing it.
        const AxElement& la = *c.ax.lassoAncestor;
        size_t host = chain.size();
        for (size_t i = 0; i < chain.size(); ++i) {
            const Box f = frameOf(chain[i]);
            if (f.x0 <= la.x && f.y0 <= la.y && f.x1 >= la.x + la.w && f.y1 >= la.y + la.h) {
                host = i;
                break;
            }
        }
        const QString base = host < chain.size() ? pathTo(host) + QLatin1Char('/') : QString();
        options.push_back({base + segment(la), overlap(lasso, frameOf(la)), true});
    }

    // The lasso's own element leads; the rest follow by how well they fit the lasso.
    std::stable_sort(options.begin(), options.end(), [](const Option& a, const Option& b) {
        if (a.lasso != b.lasso)
            return a.lasso;
        return a.score > b.score;
    });
    ElementGuess g;
    g.path = options.front().path;
    double conf = options.front().score;
    if (options.front().lasso)
        conf = 0.5 + 0.5 * conf; // all lasso samples agreed on it
    g.confidence = std::round(std::clamp(conf, 0.0, 1.0) * 100.0) / 100.0;
    for (const Option& o : options)
        if (!g.candidates.contains(o.path) && g.candidates.size() < 4)
            g.candidates << o.path;
    return g;
}

} // namespace tk::service
