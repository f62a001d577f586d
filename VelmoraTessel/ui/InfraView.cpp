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

QString expandTilde(const QString& path) {
    if (path == u"~"_s || path.startsWith(u"~/"_s)) {
        return QDir::homePath() + path.mid(1);
    }
    return path;
}

} // namespace

// The 14-point column with the state's dot; `missing` shows no dot at all.
struct InfraView::Dot : QWidget {
    explicit Dot(QWidget* parent) : QWidget(parent) {
        setFixedWidth(14);
        auto* layout = new QHBoxLayout(this);
        layout->setContentsMargins(0, 0, 0, 0);
        dot = new QLabel(this);
        dot->setFixedSize(6, 6);
        layout->addWidget(dot, 0, Qt::AlignCenter);
    }
    void set(State state, const QString& what, const QString& tooltip) {
        setToolTip(tooltip);
        setAccessibleName(what + u", "_s + stateText(state));
        const QString colour = state == State::running     ? u"#34c759"_s
                               : state == State::unhealthy ? u"#ff9500"_s
                                                           : u"#8e8e93"_s;
        dot->setStyleSheet(u"background-color: %1; border-radius: 3px;"_s.arg(colour));
        dot->setAccessibleName(stateText(state));
        dot->setVisible(state != State::missing);
    }
    QLabel* dot;
};

InfraView::InfraView(InfraModel* model, Actions actions, QWidget* parent)
    : QWidget(parent), model_(model), actions_(std::move(actions)) {
    auto* column = new QVBoxLayout(this);
    column->setContentsMargins(0, 0, 0, 0);
    column->setSpacing(3);
    heading_ = caption(QString(), this, secondary(this));
    column->addWidget(heading_);
    notInstalled_ = caption(QString(), this, secondary(this));
    column->addWidget(notInstalled_);
    reading_ = caption(u"Reading infrastructure…"_s, this);
    column->addWidget(reading_);

    rows_ = new QWidget(this);
    auto* rows = new QVBoxLayout(rows_);
    rows->setContentsMargins(0, 0, 0, 0);
    rows->setSpacing(3);
    column->addWidget(rows_);
    const auto rowLayout = [rows] {
        auto* row = new QHBoxLayout;
        row->setSpacing(4);
        rows->addLayout(row);
        return row;
    };

    auto* conductor = rowLayout();
    conductorDot_ = new Dot(rows_);
    conductor->addWidget(conductorDot_);
    conductor_ = caption(QString(), rows_);
    conductor->addWidget(conductor_);
    conductor->addStretch();
    open_ = iconButton(u"window-new"_s, u"↗"_s, u"Open conductor"_s, rows_);
    connect(open_, &QToolButton::clicked, this, [this] {
        if (const auto url = row_ ? row_->openURL() : std::nullopt) {
            leaveTo(*url);
        }
    });
    conductor->addWidget(open_);
    restart_ = iconButton(u"view-refresh"_s, u"↻"_s, u"Restart conductor"_s, rows_);
    connect(restart_, &QToolButton::clicked, this, [this] {
        if (model_ && row_) {
            spawn([model = model_, target = *row_] { return model->restart(target); });
        }
    });
    conductor->addWidget(restart_);
    setup_ = new QPushButton(u"Set up…"_s, rows_);
    setup_->setObjectName(u"setUpConductor"_s);
    connect(setup_, &QPushButton::clicked, this, [this] {
        if (actions_.openSetup) {
            actions_.openSetup();
        }
    });
    conductor->addWidget(setup_);

    auto* tunnel = rowLayout();
    tunnelDot_ = new Dot(rows_);
    tunnel->addWidget(tunnelDot_);
    tunnel->addWidget(caption(u"Tunnel"_s, rows_));
    tunnel_ = caption(QString(), rows_, secondary(this));
    tunnel_->setWordWrap(false);
    tunnel->addWidget(tunnel_, 1);
    // The log opens in the desktop's default application for it.
    log_ = iconButton(u"text-x-generic"_s, u"≡"_s, u"Open tunnel log"_s, rows_);
    connect(log_, &QToolButton::clicked, this, [this] {
        if (row_ && row_->tunnel.log) {
            leaveTo(QUrl::fromLocalFile(expandTilde(*row_->tunnel.log)));
        }
    });
    tunnel->addWidget(log_);

    auto* supervisor = rowLayout();
    supervisorDot_ = new Dot(rows_);
    supervisor->addWidget(supervisorDot_);
    supervisor->addWidget(caption(u"Agent supervisor"_s, rows_));
    supervisor_ = caption(QString(), rows_, secondary(this));
    supervisor->addWidget(supervisor_);
    supervisor->addStretch();
    supervisorSetup_ = new QPushButton(u"Set up…"_s, rows_);
    supervisorSetup_->setEnabled(false);
    supervisorSetup_->setToolTip(loadAgentFirst);
    supervisor->addWidget(supervisorSetup_);
    supervisorLine_ = caption(QString(), rows_);
    rows->addWidget(supervisorLine_);

    error_ = caption(QString(), this, u"#d70015"_s);
    error_->setObjectName(u"infraError"_s);
    error_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    column->addWidget(error_);

    if (model) {
        connect(model, &InfraModel::changed, this, &InfraView::update);
    }
    update();
}

void InfraView::setOrg(const QString& host, const QString& name) {
    if (host_ == host && name_ == name) {
        return;
    }
    host_ = host;
    name_ = name;
    update();
}

void InfraView::update() {
    heading_->setText(u"Infra · "_s + name_);
    const bool installed = model_ && model_->isInstalled();
    const std::optional<InfraStatus>& status =
        model_ ? model_->status() : std::optional<InfraStatus>();
    notInstalled_->setVisible(model_ && !installed);
    if (model_ && !installed) {
        notInstalled_->setText(model_->notInstalled());
    }
    reading_->setVisible(installed && !status && model_->busy());
    rows_->setVisible(installed && status.has_value());
    // Without the tool the model's error is the not-installed line, which
    // stands above already: said once, quietly.
    error_->setVisible(installed && model_->error().has_value());
    error_->setText(installed && model_->error() ? *model_->error() : QString());
    if (!installed || !status) {
        return;
    }

    row_ = status->organisation(host_);
    const auto& row = row_;
    const bool loaded = status->supervisor.loaded;
    const bool busy = model_->busy();
    conductorDot_->set(row ? row->conductor.state : State::missing, u"Conductor"_s,
                       row ? row->managementHelp() : u"Set up conductor"_s);
    const QString port = row && row->port ? u":"_s + QString::number(*row->port) : QString();
    conductor_->setText(u"Conductor"_s + port);
    open_->setVisible(row && row->openURL());
    restart_->setVisible(row && row->canRestart());
    restart_->setEnabled(!busy);
    setup_->setVisible(!row || row->canSetup());
    setup_->setEnabled(loaded && !busy);
    setup_->setToolTip(loaded ? u"Set up conductor for "_s + name_ : loadAgentFirst);

    tunnelDot_->set(row ? row->tunnel.state : State::missing, u"Tunnel"_s,
                    row ? row->managementHelp() : u"Tunnel is missing"_s);
    tunnel_->setText(row && row->tunnel.label ? *row->tunnel.label : u"missing"_s);
    log_->setVisible(row && row->tunnel.log && !row->tunnel.log->isEmpty());

    supervisorDot_->set(loaded ? State::running : State::stopped, u"Agent supervisor"_s,
                        status->supervisor.label);
    supervisor_->setText(loaded ? u"loaded"_s : u"not loaded"_s);
    supervisorSetup_->setVisible(!loaded);
    supervisorLine_->setVisible(!loaded);
    if (!loaded) {
        supervisorLine_->setText(
            model_->supervisorHumanLine().value_or(status->supervisor.humanLine()));
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
