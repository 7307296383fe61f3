#include "ui/splash.h"

#include <QGuiApplication>
#include <QLabel>
#include <QLinearGradient>
#include <QPainter>
#include <QScreen>
#include <QVBoxLayout>

#include "base/identity.h"
#include "app/strings.h"
#include "ui/res_strings.h"

namespace zorv::ui {

frmSplash::frmSplash(QWidget* parent) : QWidget(parent, Qt::SplashScreen | Qt::FramelessWindowHint) {
    setObjectName("frmSplash");
    setAttribute(Qt::WA_DeleteOnClose);
    setFixedSize(520, 280);

    lblProductName_ = new QLabel(QString::fromStdString(ProductName()), this);
    lblProductName_->setObjectName("lblProductName");
    lblProductName_->setProperty("tag", 1686);
    lblCompany_ = new QLabel(QString::fromUtf8(kCompanyName), this);
    lblCompany_->setObjectName("lblCompany");
    lblCompany_->setProperty("tag", static_cast<int>(resCompanyName));
    LoadResStrings(this);
    // The version label joins its caption string to the number.
    lblVersion_ = new QLabel(QString::fromUtf8(LoadResString(resVersionCaption)) +
                                 QString::fromStdString(VersionString()),
                             this);
    lblVersion_->setObjectName("lblVersion");

    QFont f = font();
    f.setPointSizeF(f.pointSizeF() * 1.9);
    f.setBold(true);
    lblProductName_->setFont(f);
    lblProductName_->setWordWrap(true);
    QFont c = font();
    c.setPointSizeF(c.pointSizeF() * 1.2);
    lblCompany_->setFont(c);
    for (QLabel* l : {lblProductName_, lblCompany_, lblVersion_}) l->setStyleSheet("color: white;");

    auto* lay = new QVBoxLayout(this);
    lay->setContentsMargins(36, 40, 36, 28);
    lay->addWidget(lblProductName_);
    lay->addSpacing(6);
    lay->addWidget(lblCompany_);
    lay->addStretch(1);
    lay->addWidget(lblVersion_);

    if (QScreen* s = QGuiApplication::primaryScreen()) {
        const QRect a = s->availableGeometry();
        move(a.center() - rect().center());
    }
}

QString frmSplash::productText() const { return lblProductName_->text(); }
QString frmSplash::companyText() const { return lblCompany_->text(); }
QString frmSplash::versionText() const { return lblVersion_->text(); }

void frmSplash::paintEvent(QPaintEvent*) {
    QPainter p(this);
    QLinearGradient g(0, 0, width(), height());
    g.setColorAt(0, QColor(0x1d, 0x3b, 0x63));
    g.setColorAt(1, QColor(0x0b, 0x1a, 0x30));
    p.fillRect(rect(), g);
    // A thin accent line under the product name.
    p.setPen(QPen(QColor(0x4f, 0xa3, 0xe0), 2));
    p.drawLine(36, height() - 60, width() - 36, height() - 60);
    p.setPen(QColor(0x2c, 0x4c, 0x78));
    p.drawRect(rect().adjusted(0, 0, -1, -1));
}

}  // namespace zorv::ui
