// frmSplash: product, company and version while start-up runs.
#pragma once

#include <QWidget>

class QLabel;

namespace zorv::ui {

class frmSplash : public QWidget {
    Q_OBJECT
public:
    explicit frmSplash(QWidget* parent = nullptr);
    QString productText() const;
    QString companyText() const;
    QString versionText() const;

protected:
    void paintEvent(QPaintEvent* e) override;

private:
    QLabel* lblProductName_;
    QLabel* lblCompany_;
    QLabel* lblVersion_;
};

}  // namespace zorv::ui
