// All windows and alerts in all their states, filled by the program itself: what they look
// like in the colours, fonts and scales of desktops, and what a screen reader makes of them.
#include <gtest/gtest.h>
#include <private/qguiapplication_p.h>
#include <qpa/qplatformaccessibility.h>
#include <qpa/qplatformintegration.h>

#include <QAbstractButton>
#include <QAccessible>
#include <QApplication>
#include <QLabel>
#include <QPainter>
#include <QPushButton>
#include <QScrollArea>
#include <QTemporaryFile>
#include <QTest>
#include <cmath>
#include <set>

#include "app_shell/main_storyboard.h"
#include "app_shell/package/file_package.h"
#include "app_shell/progress_window.h"
#include "app_shell/qt/layouts.h"
#include "app_shell/qt/picture.h"
#include "app_shell/qt/qt_application.h"
#include "app_shell/qt/qt_window.h"
#include "app_shell/qt/status_sign.h"
#include "app_shell/view_controller.h"
#include "support/linked_device.h"
#include "support/named_cases.h"

namespace qm5::test {
namespace {

struct Desktop {
  std::string name;
  QSize screen;  // points
  int scale;
  double font;    // times the usual one
  QColor ground;  // none: the style's own colours
  bool is_roomy;  // every text keeps its own lines
  Qt::LayoutDirection direction = Qt::LeftToRight;
};
QM5_PRINTS_NAME(Desktop)

const std::string kGone =
    "The QM5 has gone during the update. Plug it in\n"
    "again, then repeat the update.";

// The production toolkit, but for modal runs: what runs modally is looked at instead.
struct LookedAt final : QtApplication {
  std::shared_ptr<Window> mainWindow() override { return main; }
  void runModalForWindow(const std::shared_ptr<Window>& window) override {
    look("finish");
    const auto grown = window->growStatusIndicator();
    if (grown) grown->setStatus(StatusKind::good, "The QM5 is back and reports version 4208.");
    if (grown) look("grown finish");
  }
  std::shared_ptr<Window> main;
  std::function<void(const std::string& state)> look;
};

class Windows : public LinkedDevice {
 protected:
  // One process a test: the application is made for this desktop and never taken apart.
  void startOn(const Desktop& desktop) {
    static QTemporaryFile screens;
    ASSERT_TRUE(screens.open());
    const QSize size = desktop.screen * desktop.scale;
    screens.write(QString(R"({"screens": [{"name": "", "x": 0, "y": 0, "width": %1, "height": %2,
        "logicalDpi": 96, "logicalBaseDpi": 96, "dpr": 1}]})")
                      .arg(size.width())
                      .arg(size.height())
                      .toUtf8());
    screens.close();
    qputenv("QT_QPA_PLATFORM", "offscreen:configfile=" + screens.fileName().toUtf8());
    qputenv("QT_SCALE_FACTOR", QByteArray::number(desktop.scale));
    static int count = 1;
    static std::string name = "looks_test";
    static char* arguments[] = {name.data(), nullptr};
    [[maybe_unused]] static const auto* const kept = new QApplication(count, arguments);
    QApplication::setApplicationName("QM5 Updater");
    QApplication::setLayoutDirection(desktop.direction);
    if (desktop.ground.isValid()) QApplication::setPalette({desktop.ground, desktop.ground});
    font_ = desktop.font;
  }

  void lookAtAll(const std::function<void(const std::string& state, QWidget& top)>& look) {
    application_.look = [this, &look](const std::string& state) {
      bool is_drawn = false;
      application_.mainQueueAsync([&] { is_drawn = true; });  // after what is there to be drawn
      EXPECT_TRUE(QTest::qWaitFor([&] { return is_drawn; }));
      // A change of size goes up from layout to layout, each in a turn of its own.
      for (int layout = 0; layout < 8; ++layout) QApplication::processEvents();
      SCOPED_TRACE(state);
      clock.sleep(1);  // a window that has just come up by itself takes no presses
      QWidget* modal = QApplication::activeModalWidget();
      look(state, modal ? *modal : *QApplication::activeWindow());
    };
    setApplication(&application_);
    setApplicationPackage(new FilePackage);
    MainQueue queue;
    application_.main = std::make_shared<QtWindow>(queue, makeMainLayout());
    const auto kept = mainStoryboard().makeMainController(application_.main);
    auto& controller = *std::static_pointer_cast<ViewController>(kept);
    application_.main->show();
    // The person changes it while the window stands.
    QFont font = QApplication::font();
    font.setPointSizeF(font.pointSizeF() * font_);
    QApplication::setFont(font);
    lookAtDeviceStates();
    for (const char* button : {"btnExit", "btnNext"}) {
      application_.main->button(button)->setEnabled(false);  // as Next does
    }
    controller.dialogErrorStop(
        "QM5 firmware update data error!",
        "Attached binary file data error.\nPlease download this program and try again.");
    application_.look("alert");
    QTest::keyClick(QApplication::activeModalWidget(), Qt::Key_Return);
    application_.main->makeKeyAndOrderFront();  // as a window manager would
    application_.look("main, after an alert");
    lookAtFailedRun();
    controller.showExitConfirmation();
    application_.look("exit");
    QTest::keyClick(QApplication::activeModalWidget(), Qt::Key_Escape);
    lookAtProgress();
    controller.showCustomDialog();
  }

 private:
  void lookAtDeviceStates() {
    application_.look("main, absent");
    for (const auto& [state, result] : {std::pair("not permitted", kIOReturnNotPermitted),
                                        {"unusable", kIOReturnError},
                                        {"connected", kIOReturnSuccess}}) {
      if (result == kIOReturnSuccess) attach();
      NotificationCenter::defaultCenter().post(
          {USBDeviceExamined,
           Dictionary{
               {"id", std::uint64_t{7}}, {"result", result}, {"location", std::string("1-1")}}});
      application_.look(std::string("main, ") + state);
    }
  }

  void lookAtFailedRun() {
    application_.main->statusIndicator("runStatus")->setStatus(StatusKind::caution, kGone);
    application_.main->button("btnDetails")->setHidden(false);
    application_.look("main, failed run");
    const std::string line =
        "Writing SFWd chunk 17 of the new firmware, and more than fits in a line";
    const std::string introduction =
        "What the updater has printed in its last run. Send it to whoever helps you, together with "
        "what qm5-updater-report writes.";
    application_.main->showText({"Details of the last update", introduction, line, "run.txt"});
    application_.look("details");
    QTest::keyClick(QApplication::activeModalWidget(), Qt::Key_Escape);
    application_.main->statusIndicator("runStatus")->setStatus(StatusKind::caution, "");
    application_.main->button("btnDetails")->setHidden(true);
  }

  void lookAtProgress() {
    const auto window = application_.instantiateWindow("Main", "ProgressWindow");
    const auto bus = DeviceStatusPresenter::follow();
    bus->showIn(application_.main->statusIndicator("deviceStatus"));
    ProgressWindowController progress(window, bus);
    auto& content = dynamic_cast<ProgressViewController&>(*progress.contentViewController);
    content.updateBegan(20);
    progress.showWindow();
    application_.look("progress, looking");
    content.progressed({.number = 1, .percent = 1});
    const std::string longest = "Updating firmware version from DDDD -> 4208, (100.0 %)";
    content.txtTitle2.lock()->setStringValue(longest);
    content.progressBar.lock()->setDoubleValue(37.5);
    for (const auto& [state, seconds, step] : {std::tuple("writing", 30.0, std::size_t{10}),
                                               {"waiting", 6000.0, std::size_t{0}},
                                               {"checking", 0.0, std::size_t{22}}}) {
      clock.sleep(seconds);
      if (step > 0) content.progressed({.number = step, .percent = 50});
      content.showPace();
      application_.look(std::string("progress, ") + state);
    }
    for (const char* box : {"deviceStatus", "sleepStatus"})
      window->statusIndicator(box)->setStatus(StatusKind::caution, kGone);
    application_.look("progress, gone");
    progress.close();
  }

  LookedAt application_;
  double font_ = 1;  // times the usual one
};

// --- to the eye ---

// Of the brightest pixel to the darkest one.
double contrast(const QImage& drawn) {
  std::set<QRgb> colors;
  for (int i = 0; i < drawn.width() * drawn.height(); ++i)
    colors.insert(drawn.pixel(i % drawn.width(), i / drawn.width()));
  std::set<double> luminances;
  for (const QColor color : colors) {
    const auto part = [](double value) { return std::pow(value, 2.2); };
    luminances.insert(0.2126 * part(color.redF()) + 0.7152 * part(color.greenF()) +
                      0.0722 * part(color.blueF()));
  }
  return (*luminances.rbegin() + 0.05) / (*luminances.begin() + 0.05);
}

// As its file has it for that scale, without a pixel in between.
void expectSharp(const QWidget& picture, const std::string& name) {
  const auto ratio = static_cast<int>(picture.devicePixelRatioF());
  const QString path = QString::fromStdString(*applicationPackage().pathForResource(name, "png"));
  QImage file(QString(path).replace(".png", ratio == 1 ? ".png" : QString("@%1x.png").arg(ratio)));
  file.setDevicePixelRatio(1);
  QImage expected(file.size(), QImage::Format_ARGB32_Premultiplied);
  expected.fill(Qt::transparent);
  QPainter(&expected).drawImage(0, 0, file);
  QImage drawn(file.size(), expected.format());
  drawn.fill(Qt::transparent);
  drawn.setDevicePixelRatio(ratio);
  const_cast<QWidget&>(picture).render(&drawn, {}, {}, QWidget::RenderFlags());
  drawn.setDevicePixelRatio(1);
  EXPECT_EQ(drawn, expected) << name;
}

void expectReadable(QWidget& widget, const Desktop& desktop) {
  const auto* label = qobject_cast<QLabel*>(&widget);
  const bool is_picture = qobject_cast<StatusSign*>(&widget) || qobject_cast<Picture*>(&widget);
  const bool is_empty = label && label->text().isEmpty();
  if (is_empty || (!label && (widget.layout() || !widget.children().isEmpty()))) return;
  // A text is in the lines that it was written in.
  if (label) {
    EXPECT_EQ(label->textFormat(), Qt::PlainText);
    const int size = label->fontInfo().pixelSize();
    EXPECT_TRUE(label->objectName() != "txtHeadline" ||
                size > 1.2 * QFontInfo(QApplication::font()).pixelSize());
    EXPECT_GE(label->height(), label->heightForWidth(label->width()));
    const bool has_own_lines = label->text().contains('\n');
    const int own = label->heightForWidth(2 * desktop.screen.width());
    EXPECT_TRUE(!desktop.is_roomy || !has_own_lines ||
                label->heightForWidth(label->width()) == own);
  } else {
    EXPECT_EQ(widget.size(), widget.size().expandedTo(widget.sizeHint()));
  }
  const int frame = label ? 0 : 6;  // it is no part of a button's text
  const QRect text = widget.rect().adjusted(frame, frame, -frame, -frame);
  const QRect drawn(widget.mapTo(widget.window(), text.topLeft()), text.size());
  if (widget.inherits("QProgressBar")) return;
  EXPECT_TRUE(!is_picture || widget.height() >= widget.fontInfo().pixelSize());
  EXPECT_GE(contrast(widget.window()->grab(drawn).toImage()),
            is_picture || !widget.isEnabled() ? 3 : 4.5);
}

QImage signOf(const QWidget& main) {
  return main.findChild<QWidget*>("deviceStatus")->findChild<StatusSign*>()->grab().toImage();
}

// Of a label what its text takes up.
QRect occupied(const QWidget& widget) {
  if (!qobject_cast<const QLabel*>(&widget)) return widget.geometry();
  return {widget.pos(), QSize(widget.width(), widget.heightForWidth(widget.width()))};
}

void expectTidy(QWidget& parent, const Desktop& desktop) {
  auto children = parent.findChildren<QWidget*>(QString(), Qt::FindDirectChildrenOnly);
  children.removeIf([](QWidget* child) { return !child->isVisible() || child->isWindow(); });
  auto* scrolling = qobject_cast<QScrollArea*>(parent.parentWidget());
  for (auto* child : children) {
    SCOPED_TRACE(child->metaObject()->className() + (" " + child->objectName()).toStdString());
    EXPECT_TRUE(parent.rect().contains(child->geometry()) || scrolling);
    for (auto* other : children) {
      EXPECT_TRUE(other == child || !occupied(*other).intersects(occupied(*child)));
    }
    for (QWidget* above = child; above != nullptr; above = above->parentWidget()) {
      if (auto* area = qobject_cast<QScrollArea*>(above)) area->ensureWidgetVisible(child, 0, 0);
    }
    expectReadable(*child, desktop);
    expectTidy(*child, desktop);
  }
}

// The subviews of its 320 by 280 points are where they belong, as much larger as it is.
void expectInStep(const QWidget& finish, const QWidget& main) {
  const double scale = finish.width() / 320.0;
  EXPECT_EQ(scale > 1, finish.fontInfo().pixelSize() > 20);
  EXPECT_NEAR(finish.height(), 280 * scale, 1);
  EXPECT_LE((finish.geometry().center() - main.geometry().center()).manhattanLength(), 4);
  std::vector<QPointF> places = {{107, 20}, {10, 140}, {10, 175}, {10, 230}};
  for (const QObject* child : finish.findChild<QWidget*>()->children()) {
    const QPointF place = qobject_cast<const QWidget*>(child)->pos();
    EXPECT_LE((place - places.front() * scale).manhattanLength(), 2) << places.front().y();
    places.erase(places.begin());
  }
}

class Looks : public Windows, public testing::WithParamInterface<Desktop> {};

TEST_P(Looks, AreWholeTidyAndReadable) {
  const Desktop& desktop = GetParam();
  startOn(desktop);
  std::map<std::string, QSize> sizes;
  QList<QImage> signs;
  const QWidget* main = nullptr;
  const QSize room = desktop.screen - QSize(0, 24);  // a title bar
  lookAtAll([&](const std::string& state, QWidget& top) {
    if (!main) main = &top;
    if (!signs.contains(signOf(*main))) signs.push_back(signOf(*main));
    expectTidy(top, desktop);
    EXPECT_EQ(top.layoutDirection(), Qt::LeftToRight);
    for (auto* picture : top.findChildren<Picture*>()) {
      if (&top == main) expectSharp(*picture, "qm5");
    }
    for (auto* button : top.findChildren<QPushButton*>())
      EXPECT_TRUE(!button->isVisible() || button->visibleRegion() == button->rect());
    if (state == "finish") expectInStep(top, *main);
    EXPECT_EQ(top.isModal(), !state.starts_with("main")) << "it blocks the others";
    EXPECT_EQ(top.size(), top.size().boundedTo(room));
    const auto window = state.substr(0, state.find(','));
    EXPECT_EQ(sizes.try_emplace(window, top.size()).first->second.width(), top.width())
        << "it jumps";
  });
  EXPECT_EQ(signs.size(), 3);
}

const Desktop kDesktops[] = {
    {"640x480", {640, 480}, 1, 1, {}, true, Qt::RightToLeft},
    {"800x600_large_font_dark", {800, 600}, 1, 2, QColor(53, 53, 53), false},
    {"2x_high_contrast", {1280, 800}, 2, 1, Qt::black, true}};
INSTANTIATE_TEST_SUITE_P(On, Looks, testing::ValuesIn(kDesktops), named);

// --- to a screen reader ---

std::string nameOf(QObject* object) {
  return QAccessible::queryAccessibleInterface(object)->text(QAccessible::Name).toStdString();
}

// The names of all but plain text, and what Tab leads to from where the focus is at first.
std::string readAloud(QWidget& top) {
  const std::map<QAccessible::Role, std::string> kinds = {
      {QAccessible::Dialog, "window "},    {QAccessible::AlertMessage, "alert "},
      {QAccessible::StaticText, "title "}, {QAccessible::Graphic, "picture "},
      {QAccessible::Button, "button "},    {QAccessible::ProgressBar, "bar "},
      {QAccessible::StatusBar, "status"},  {QAccessible::EditableText, "lines "}};
  std::string told;
  const std::function<void(QAccessibleInterface&)> read = [&](QAccessibleInterface& node) {
    const auto* label = qobject_cast<QLabel*>(node.object());
    if (node.state().invisible || (label && label->text().isEmpty())) return;
    const auto kind = kinds.find(node.role());
    const std::string name = nameOf(node.object());
    EXPECT_EQ(name.empty(), kind == kinds.end() && node.childCount() > 0) << node.role();
    EXPECT_EQ(name.find_first_of("<_"), name.npos) << name << ": not as a person would say it";
    const bool is_title = label && label->font().weight() > QFont::Normal;
    if (kind != kinds.end() && (!label || is_title))
      told += kind->second + (node.role() == QAccessible::StatusBar ? "" : name) + ", ";
    if (auto* value = node.valueInterface())
      told += "at " + value->currentValue().toString().toStdString() + ", ";
    if (node.role() == QAccessible::EditableText) return;  // what scrolls it has no name
    for (int i = 0; i < node.childCount(); ++i) read(*node.child(i));
  };
  read(*QAccessible::queryAccessibleInterface(&top));
  const QWidget* first = top.focusWidget();
  do {
    told += "Tab " + nameOf(top.focusWidget()) + " ";
    QTest::keyClick(&top, Qt::Key_Tab);
  } while (top.focusWidget() != first && told.size() < 1000);
  return told;
}

std::string mainWith(const std::string& sign) {
  return "window QM5 Updater, picture QM5, title Update the firmware of your QM5, title Until it "
         "is "
         "done, do not unplug the QM5 and do not let the computer sleep., status, picture " +
         sign + ", button Next, button Exit, Tab Next Tab Exit ";
}
std::map<std::string, std::string> expected_aloud = {
    {"main, absent", mainWith("Information")},
    {"main, connected", mainWith("Good")},
    {"main, not permitted", mainWith("Caution")},
    {"main, unusable", mainWith("Caution")},
    {"main, after an alert", mainWith("Good")},
    {"alert",
     "alert QM5 Updater, picture Caution, title QM5 firmware update data error!, button OK, Tab "
     "OK "},
    {"exit",
     "alert QM5 Updater, picture Caution, title Exit confirmation, button Quit, button Don't quit, "
     "Tab Don't quit Tab Quit "},
    {"progress, writing",
     "window Updating the QM5, title Do not unplug the QM5, bar Progress of the update, at 375, "
     "button Abort, Tab Updating the QM5 Tab Abort "},
    {"finish",
     "window Firmware update successful!, picture QM5, title Firmware update successful!, button "
     "Confirm & Exit, Tab Confirm & Exit "}};

std::map<std::string, int> announcements;  // by the name of the widget

TEST_F(Windows, AreNamedReachedByTabAndTellWhatChanges) {
  startOn({"", {1280, 800}, 1, 1, {}, true});
  // As when a screen reader runs, which only a platform can tell.
  QGuiApplicationPrivate::platformIntegration()->accessibility()->setActive(true);
  QAccessible::installUpdateHandler([](QAccessibleEvent* event) {
    std::set<int> telling = {QAccessible::Alert, QAccessible::NameChanged,
                             QAccessible::ValueChanged};
#if QT_VERSION >= QT_VERSION_CHECK(6, 8, 0)
    telling.insert(QAccessible::Announcement);
#endif
    const auto* widget = qobject_cast<QWidget*>(event->object());
    if (widget && widget->isVisible() && telling.contains(event->type()))
      ++announcements[widget->objectName().toStdString()];
  });
  lookAtAll([](const std::string& state, QWidget& top) {
    const std::string told = readAloud(top);
    const auto expected = expected_aloud.extract(state);
    EXPECT_EQ(told, expected ? expected.mapped() : told);
  });
  EXPECT_TRUE(expected_aloud.empty());
  const int of_boxes_that_come_and_go = 5;
  EXPECT_EQ(announcements["txtStatus"], 2 * 3 + of_boxes_that_come_and_go)
      << "the new name, and an alert that it has changed";
  EXPECT_EQ(announcements["progressBar"], 1);
  EXPECT_EQ(announcements["txtTitle2"], 1);
  EXPECT_GE(announcements["txtPhase"], 3) << "writing, waiting, checking";
}

}  // namespace
}  // namespace qm5::test
