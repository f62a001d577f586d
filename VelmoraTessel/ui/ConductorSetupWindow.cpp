#include "ui/ConductorSetupWindow.h"

#include <QComboBox>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QShortcut>
#include <QVBoxLayout>

using namespace Qt::StringLiterals;

namespace tessel::app {

namespace {

QLabel* selectable(QWidget* parent, const QString& colour = {}) {
    auto* label = new QLabel(parent);
    label->setWordWrap(true);
    label->setTextInteractionFlags(Qt::TextSelectableByMouse);
    if (!colour.isEmpty()) {
        label->setStyleSheet(u"color: %1;"_s.arg(colour));
    }
    return label;
}

QWidget* stepIcon(ConductorStep::State state, QWidget* parent) {
    using State = ConductorStep::State;
    if (state == State::running) {
        auto* spinner = new QProgressBar(parent);
        spinner->setRange(0, 0);
        spinner->setTextVisible(false);
        spinner->setFixedSize(16, 8);
        return spinner;
    }
    auto* icon = new QLabel(parent);
    icon->setFixedWidth(16);
    icon->setText(state == State::done ? u"✔"_s : state == State::failed ? u"✖"_s : u"−"_s);
    icon->setStyleSheet(state == State::done     ? u"color: #34c759;"_s
                        : state == State::failed ? u"color: #d70015;"_s
                                                 : u"color: palette(placeholder-text);"_s);
    return icon;
}

Task<void> nothing() {
    co_return;
}

} // namespace

ConductorSetupWindow::ConductorSetupWindow(InfraModel* infra,
                                           std::unique_ptr<ConductorSetupModel> setup,
                                           Context context, QWidget* parent)
    : QWidget(parent, Qt::Window), infra_(infra), setup_(setup.release()),
      context_(std::move(context)) {
    setup_->setParent(this);
    setObjectName(id);
    setWindowTitle(u"Set up conductor"_s);
    setMinimumSize(480, 520);

    auto* layout = new QVBoxLayout(this);
    auto* title = new QLabel(u"Set up conductor"_s, this);
    QFont bold = title->font();
    bold.setBold(true);
    title->setFont(bold);
    layout->addWidget(title);

    form_ = new QWidget(this);
    auto* fields = new QFormLayout(form_);
    fields->setContentsMargins(0, 0, 0, 0);
    orgPicker_ = new QComboBox(form_);
    orgPicker_->setObjectName(u"organisation"_s);
    fields->addRow(u"Organisation"_s, orgPicker_);
    auto* slugAndPort = new QHBoxLayout;
    slug_ = new QLineEdit(form_);
    slug_->setObjectName(u"slug"_s);
    port_ = new QLineEdit(form_);
    port_->setObjectName(u"port"_s);
    slugAndPort->addWidget(slug_, 2);
    slugAndPort->addWidget(new QLabel(u"Port"_s, form_));
    slugAndPort->addWidget(port_, 1);
    fields->addRow(u"Slug"_s, slugAndPort);
    for (const ConductorSecret secret : ConductorSecrets::all) {
        auto* field = new QLineEdit(form_);
        field->setEchoMode(QLineEdit::Password);
        field->setObjectName(ConductorSecrets::rawValue(secret));
        fields->addRow(ConductorSecrets::label(secret), field);
        secrets_[secret] = field;
    }
    auto* note =
        new QLabel(u"These are minted by hand today; paste them from the org console"_s, form_);
    note->setWordWrap(true);
    fields->addRow(note);
    auto* runbook = new QPushButton(u"Conductor runbook"_s, form_);
    runbook->setFlat(true);
    connect(runbook, &QPushButton::clicked, this, [this] {
        if (context_.openURL) {
            context_.openURL(context_.runbookURL);
        }
    });
    fields->addRow(runbook);
    layout->addWidget(form_);

    notice_ = selectable(this);
    notice_->setObjectName(u"notice"_s);
    layout->addWidget(notice_);

    auto* buttons = new QHBoxLayout;
    dryRun_ = new QPushButton(u"Dry run"_s, this);
    run_ = new QPushButton(u"Set up"_s, this);
    run_->setDefault(true);
    progress_ = new QProgressBar(this);
    progress_->setRange(0, 0);
    progress_->setTextVisible(false);
    progress_->setFixedSize(48, 8);
    buttons->addWidget(dryRun_);
    buttons->addWidget(run_);
    buttons->addWidget(progress_);
    buttons->addStretch();
    layout->addLayout(buttons);
    connect(dryRun_, &QPushButton::clicked, this, [this] { start(true); });
    connect(run_, &QPushButton::clicked, this, [this] { start(false); });
    // A default button acts on Return only inside a dialog; this is a window.
    for (QLineEdit* field : form_->findChildren<QLineEdit*>()) {
        connect(field, &QLineEdit::returnPressed, run_, &QPushButton::click);
    }

    stepsColumn_ = new QVBoxLayout;
    layout->addLayout(stepsColumn_);
    failure_ = selectable(this, u"#d70015"_s);
    failure_->setObjectName(u"failure"_s);
    complete_ = new QLabel(this);
    complete_->setObjectName(u"complete"_s);
    openConductor_ = new QPushButton(u"Open conductor"_s, this);
    connect(openConductor_, &QPushButton::clicked, this, [this] {
        if (setup_->openURL() && context_.openURL) {
            context_.openURL(*setup_->openURL());
        }
    });
    layout->addWidget(failure_);
    layout->addWidget(complete_);
    layout->addWidget(openConductor_, 0, Qt::AlignLeft);
    layout->addStretch();

    connect(orgPicker_, &QComboBox::activated, this, [this](int index) {
        if (!setup_->isRunning()) {
            host_ = orgPicker_->itemData(index).toString();
            hostChanged();
        }
    });
    connect(new QShortcut(QKeySequence(Qt::Key_Escape), this), &QShortcut::activated, this,
            &QWidget::close);
    if (infra_) {
        connect(infra_, &InfraModel::changed, this, &ConductorSetupWindow::infraChanged);
    }
    connect(setup_, &ConductorSetupModel::changed, this, &ConductorSetupWindow::setupChanged);
    infraChanged();
    setupChanged();
}

void ConductorSetupWindow::showEvent(QShowEvent* event) {
    QWidget::showEvent(event);
    if (context_.refreshOrgs) {
        context_.refreshOrgs();
    }
    if (!setup_->isRunning()) {
        const auto current = context_.selected ? context_.selected() : std::nullopt;
        host_ = current ? current->host : QString();
        prefill();
    }
    fillOrgs();
    if (infra_) {
        spawn([infra = infra_] { return infra ? infra->refresh(false) : nothing(); });
    }
}

void ConductorSetupWindow::hideEvent(QHideEvent* event) {
    clearSecrets();
    QWidget::hideEvent(event);
}

std::optional<ConductorSetupWindow::Organisation> ConductorSetupWindow::selected() const {
    for (const Organisation& org : context_.orgs ? context_.orgs() : QList<Organisation>()) {
        if (org.host == host_) {
            return org;
        }
    }
    return context_.selected ? context_.selected() : std::nullopt;
}

std::optional<InfraStatus::Organisation> ConductorSetupWindow::selectedRow() const {
    const auto org = selected();
    if (!infra_ || !infra_->status() || !org) {
        return std::nullopt;
    }
    return infra_->status()->organisation(org->host);
}

void ConductorSetupWindow::fillOrgs() {
    orgPicker_->clear();
    for (const Organisation& org : context_.orgs ? context_.orgs() : QList<Organisation>()) {
        orgPicker_->addItem(org.name, org.host);
    }
    orgPicker_->setCurrentIndex(orgPicker_->findData(host_));
    infraChanged();
}

void ConductorSetupWindow::prefill() {
    const auto org = selected();
    slug_->setText(org ? org->name : QString());
    const bool report = infra_ && infra_->status();
    port_->setText(report ? QString::number(infra_->status()->nextPort) : QString());
}

void ConductorSetupWindow::hostChanged() {
    clearSecrets();
    setup_->reset();
    prefill();
    infraChanged();
}

void ConductorSetupWindow::infraChanged() {
    const std::optional<InfraStatus>& status = infra_ ? infra_->status() : std::nullopt;
    // A port the user typed stays; one that still shows the old suggestion follows.
    const auto next = status ? std::optional(status->nextPort) : std::nullopt;
    if (next != nextPort_ && !setup_->isRunning()) {
        const QString typed = port_->text();
        if (typed.isEmpty() || (nextPort_ && typed == QString::number(*nextPort_))) {
            port_->setText(next ? QString::number(*next) : QString());
        }
    }
    nextPort_ = next;

    const auto row = selectedRow();
    const bool readOnly = row && row->readOnly();
    const bool installed = infra_ && infra_->isInstalled();
    if (readOnly) {
        notice_->setText(row->managementHelp());
    } else if (!installed) {
        notice_->setText(infra_ ? infra_->notInstalled() : QString());
    } else if (status && status->supervisor.loaded) {
        notice_->clear();
    } else if (status) {
        notice_->setText(infra_->supervisorHumanLine().value_or(status->supervisor.humanLine()));
    } else {
        notice_->setText(u"Load dev.velmora.agent first"_s);
    }
    notice_->setVisible(!notice_->text().isEmpty());
    const bool ready =
        !setup_->isRunning() && installed && status && status->supervisor.loaded && !readOnly;
    dryRun_->setEnabled(ready);
    run_->setEnabled(ready);
}

void ConductorSetupWindow::setupChanged() {
    const bool running = setup_->isRunning();
    if (wasRunning_ && !running && setup_->succeeded() && !setup_->wasDryRun()) {
        clearSecrets();
    }
    wasRunning_ = running;
    form_->setEnabled(!running);
    progress_->setVisible(running);

    if (steps_) {
        steps_->hide();
        steps_->deleteLater();
    }
    steps_ = new QWidget(this);
    auto* rows = new QVBoxLayout(steps_);
    rows->setContentsMargins(0, 0, 0, 0);
    for (const ConductorStep& step : setup_->steps()) {
        auto* row = new QHBoxLayout;
        row->addWidget(stepIcon(step.state, steps_));
        row->addWidget(new QLabel(ConductorStep::nameText(step.step), steps_));
        auto* detail = selectable(steps_);
        QFont small = detail->font();
        small.setPointSizeF(small.pointSizeF() * 0.85);
        detail->setFont(small);
        detail->setText(step.detail);
        row->addWidget(detail, 1);
        rows->addLayout(row);
    }
    stepsColumn_->addWidget(steps_);

    failure_->setText(setup_->failure().value_or(QString()));
    failure_->setVisible(setup_->failure().has_value());
    const bool complete = setup_->succeeded() && !setup_->failure();
    complete_->setText(setup_->wasDryRun() ? u"Dry run complete"_s : u"Setup complete"_s);
    complete_->setVisible(complete);
    openConductor_->setVisible(setup_->openURL().has_value());
    infraChanged();
}

void ConductorSetupWindow::clearSecrets() {
    for (auto& [secret, field] : secrets_) {
        field->clear();
    }
}

void ConductorSetupWindow::start(bool dryRun) {
    const auto org = selected();
    if (!org || setup_->isRunning()) {
        return;
    }
    ConductorSecretValues values;
    for (const auto& [secret, field] : secrets_) {
        values[secret] = field->text();
    }
    bool parsed = false;
    qint64 port = port_->text().toLongLong(&parsed);
    if (!parsed) {
        port = 0;
    }
    ConductorSetupModel::Refresh refresh = [infra = infra_] {
        return infra ? infra->refresh(true) : nothing();
    };
    spawn([setup = QPointer(setup_), org = *org, slug = slug_->text(), port, values, dryRun,
           refresh] {
        return setup ? setup->run(org.host, org.url, slug, port, values, dryRun, refresh)
                     : nothing();
    });
}

} // namespace tessel::app
