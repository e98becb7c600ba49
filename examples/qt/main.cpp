// A Qt 6 Widgets host. Qt's event loop runs GLib's main loop on Linux, and with it the SDK. The SDK
// opens a window for each ad. Run kelvara-sandbox first.
#include <QApplication>
#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

#undef signals  // GLib has a field of this name
#include "../Ads.h"

int main(int argc, char** argv) {
  QApplication application(argc, argv);
  kva::gtk::Host host(example::options());

  QWidget window;
  window.setWindowTitle("Kelvara in Qt");
  window.resize(960, 640);
  auto* label = new QLabel("Starting");
  auto* interstitial = new QPushButton("&Interstitial");
  auto* rewarded = new QPushButton("&Rewarded");
  auto* column = new QVBoxLayout(&window);
  for (QWidget* widget : {static_cast<QWidget*>(label), static_cast<QWidget*>(interstitial),
                          static_cast<QWidget*>(rewarded)})
    column->addWidget(widget);

  auto ads = std::make_shared<example::Ads>([label](std::string text) {
    QMetaObject::invokeMethod(label, [label, text] { label->setText(text.c_str()); });
  });
  QObject::connect(interstitial, &QPushButton::clicked,
                   [&] { ads->showInterstitial(host.viewController()); });
  QObject::connect(rewarded, &QPushButton::clicked,
                   [&] { ads->showRewarded(host.viewController()); });
  ads->start();
  window.show();
  return application.exec();
}
