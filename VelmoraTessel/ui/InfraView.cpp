#include "ui/InfraView.h"

#include <QDir>
#include <QHBoxLayout>
#include <QIcon>
#include <QLabel>
#include <QPushButton>
#include <QToolButton>
#include <QVBoxLayout>

using namespace Qt::StringLiterals;

namespace tessel::app {

namespace {

using State = InfraStatus::State;

const QString loadAgentFirst = u"Load dev.velmora.agent first"_s;

QLabel* caption(const QString& text, QWidget* parent, const QString& colour = {}) {
    auto* label = new QLabel(text, parent);
    QFont font = label->font();
    font.setPointSizeF(font.pointSizeF() * 0.85);
    label->setFont(font);
    label->setWordWrap(true);
    if (!colour.isEmpty()) {
        label->setStyleSheet(u"color: %1;"_s.arg(colour));
    }
    return label;
}

QString secondary(const QWidget* widget) {
    return widget->palette().color(QPalette::PlaceholderText).name();
}

// The 14-point column with the state's dot; `missing` has no dot at all.
QWidget* dotColumn(State state, const QString& what, const QString& tooltip, QWidget* parent) {
    auto* column = new QWidget(parent);
    column->setFixedWidth(14);
    column->setToolTip(tooltip);
    column->setAccessibleName(what + u", "_s + stateText(state));
    auto* layout = new QHBoxLayout(column);
    layout->setContentsMargins(0, 0, 0, 0);
    if (state != State::missing) {
        const QString colour = state == State::running     ? u"#34c759"_s
                               : state == State::unhealthy ? u"#ff9500"_s
                                                           : u"#8e8e93"_s;
        auto* dot = new QLabel(column);
        dot->setFixedSize(6, 6);
        dot->setStyleSheet(u"background-color: %1; border-radius: 3px;"_s.arg(colour));
        dot->setAccessibleName(stateText(state));
        layout->addWidget(dot, 0, Qt::AlignCenter);
    }
    return column;
}

// A small icon button; the label is its tooltip and its accessible name.
QToolButton* iconButton(const QString& themeIcon, const QString& fallback, const QString& label,
                        QWidget* parent) {
    auto* button = new QToolButton(parent);
    const QIcon icon = QIcon::fromTheme(themeIcon);
    if (icon.isNull()) {
        button->setText(fallback);
    } else {
        button->setIcon(icon);
    }
    button->setAutoRaise(true);
    button->setToolTip(label);
    button->setAccessibleName(label);
    button->setObjectName(label);
    return button;
}

QHBoxLayout* rowLayout(QVBoxLayout* column) {
    auto* row = new QHBoxLayout;
    row->setSpacing(4);
    column->addLayout(row);
    return row;
}

QString expandTilde(const QString& path) {
    if (path == u"~"_s || path.startsWith(u"~/"_s)) {
        return QDir::homePath() + path.mid(1);
    }
    return path;
}

} // namespace

InfraView::InfraView(InfraModel* model, Actions actions, QWidget* parent)
    : QWidget(parent), model_(model), actions_(std::move(actions)) {
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    connect(model, &InfraModel::changed, this, &InfraView::scheduleRebuild);
    rebuild();
}

void InfraView::setOrg(const QString& host, const QString& name) {
    host_ = host;
    name_ = name;
    scheduleRebuild();
}

void InfraView::scheduleRebuild() {
    rebuildLater_.request();
}

void InfraView::rebuild() {
    if (body_) {
        body_->hide();
        body_->deleteLater();
    }
    body_ = new QWidget(this);
    layout()->addWidget(body_);
    auto* column = new QVBoxLayout(body_);
    column->setContentsMargins(0, 0, 0, 0);
    column->setSpacing(3);
    column->addWidget(caption(u"Infra · "_s + name_, body_, secondary(this)));
    if (!model_) {
        return;
    }
    if (!model_->isInstalled()) {
        column->addWidget(caption(model_->notInstalled(), body_, secondary(this)));
    } else if (!model_->status()) {
        if (model_->busy()) {
            column->addWidget(caption(u"Reading infrastructure…"_s, body_));
        }
    } else {
        addRows(column, *model_->status());
    }
    if (model_->error()) {
        auto* error = caption(*model_->error(), body_, u"#d70015"_s);
        error->setObjectName(u"infraError"_s);
        error->setTextInteractionFlags(Qt::TextSelectableByMouse);
        column->addWidget(error);
    }
}

void InfraView::addRows(QVBoxLayout* column, const InfraStatus& status) {
    const auto row = status.organisation(host_);
    const bool loaded = status.supervisor.loaded;
    const bool busy = model_->busy();

    auto* conductor = rowLayout(column);
    conductor->addWidget(dotColumn(row ? row->conductor.state : State::missing, u"Conductor"_s,
                                   row ? row->managementHelp() : u"Set up conductor"_s, body_));
    const QString port = row && row->port ? u":"_s + QString::number(*row->port) : QString();
    conductor->addWidget(caption(u"Conductor"_s + port, body_));
    conductor->addStretch();
    if (const auto url = row ? row->openURL() : std::nullopt) {
        auto* open = iconButton(u"window-new"_s, u"↗"_s, u"Open conductor"_s, body_);
        connect(open, &QToolButton::clicked, this, [this, url = *url] { leaveTo(url); });
        conductor->addWidget(open);
    }
    if (row && row->canRestart()) {
        auto* restart = iconButton(u"view-refresh"_s, u"↻"_s, u"Restart conductor"_s, body_);
        restart->setEnabled(!busy);
        connect(restart, &QToolButton::clicked, this, [model = model_, target = *row] {
            if (model) {
                spawn([model, target] { return model->restart(target); });
            }
        });
        conductor->addWidget(restart);
    }
    if (!row || row->canSetup()) {
        auto* setup = new QPushButton(u"Set up…"_s, body_);
        setup->setObjectName(u"setUpConductor"_s);
        setup->setEnabled(loaded && !busy);
        setup->setToolTip(loaded ? u"Set up conductor for "_s + name_ : loadAgentFirst);
        connect(setup, &QPushButton::clicked, this, [this] {
            if (actions_.openSetup) {
                actions_.openSetup();
            }
        });
        conductor->addWidget(setup);
    }

    auto* tunnel = rowLayout(column);
    tunnel->addWidget(dotColumn(row ? row->tunnel.state : State::missing, u"Tunnel"_s,
                                row ? row->managementHelp() : u"Tunnel is missing"_s, body_));
    tunnel->addWidget(caption(u"Tunnel"_s, body_));
    auto* label = caption(row && row->tunnel.label ? *row->tunnel.label : u"missing"_s, body_,
                          secondary(this));
    label->setWordWrap(false);
    tunnel->addWidget(label, 1);
    if (row && row->tunnel.log && !row->tunnel.log->isEmpty()) {
        // The log opens in the desktop's default application for it.
        auto* log = iconButton(u"text-x-generic"_s, u"≡"_s, u"Open tunnel log"_s, body_);
        const QUrl file = QUrl::fromLocalFile(expandTilde(*row->tunnel.log));
        connect(log, &QToolButton::clicked, this, [this, file] { leaveTo(file); });
        tunnel->addWidget(log);
    }

    auto* supervisor = rowLayout(column);
    supervisor->addWidget(dotColumn(loaded ? State::running : State::stopped, u"Agent supervisor"_s,
                                    status.supervisor.label, body_));
    supervisor->addWidget(caption(u"Agent supervisor"_s, body_));
    supervisor->addWidget(caption(loaded ? u"loaded"_s : u"not loaded"_s, body_, secondary(this)));
    supervisor->addStretch();
    if (!loaded) {
        auto* setup = new QPushButton(u"Set up…"_s, body_);
        setup->setEnabled(false);
        setup->setToolTip(loadAgentFirst);
        supervisor->addWidget(setup);
        column->addWidget(
            caption(model_->supervisorHumanLine().value_or(status.supervisor.humanLine()), body_));
    }
}

void InfraView::leaveTo(const QUrl& url) {
    if (actions_.closePopover) {
        actions_.closePopover();
    }
    if (actions_.openURL) {
        actions_.openURL(url);
    }
}

} // namespace tessel::app
