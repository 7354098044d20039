// All windows and alerts in all their states, filled by the program itself: what they look
// like in the colours, fonts and scales of desktops, and what a screen reader makes of them.
#include <gtest/gtest.h>
#include <private/qguiapplication_p.h>
#include <qpa/qplatformaccessibility.h>
#include <qpa/qplatformintegration.h>

#include <QAccessible>
#include <QPainter>
#include <QPushButton>
#include <QScrollArea>
#include <QTemporaryFile>
#include <QTest>
#include <cmath>
#include <set>

#include "app_shell/qt/picture.h"
#include "app_shell/qt/status_sign.h"
#include "support/desk.h"
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

using Look = std::function<void(const std::string& state, QWidget& top)>;
constexpr const char* kLast = "grown finish, old version";

void examine(IOReturn result) {
  NotificationCenter::defaultCenter().post(
      {USBDeviceExamined,
       Dictionary{
           {"id", std::uint64_t{99}}, {"result", result}, {"location", std::string("1-1")}}});
}

// All windows and alerts one after the other, as a person sees them.
void lookAtAll(Desk& desk, double font_scale, const Look& look) {
  const auto see = [&](const std::string& state) {
    desk.letASecondPass();
    desk.ask([&] {
      SCOPED_TRACE(state);
      QWidget* modal = QApplication::activeModalWidget();
      look(state, modal ? *modal : *QApplication::activeWindow());
      return 0;
    });
  };
  // The person changes it while the window stands.
  desk.ask([&] {
    QFont font = QApplication::font();
    font.setPointSizeF(font.pointSizeF() * font_scale);
    QApplication::setFont(font);
    return 0;
  });
  see("main, absent");
  examine(kIOReturnNotPermitted);
  see("main, not permitted");
  examine(kIOReturnError);
  see("main, unusable");
  NotificationCenter::defaultCenter().post(
      {USBDeviceDisconnected, Dictionary{{"id", std::uint64_t{99}}}});
  desk.plug({.version = 0xDDDD});  // of the widest digits
  see("main, connected");
  desk.click("Exit");
  see("exit");
  desk.send({Qt::Key_Escape});
  desk.qm5->addFault({FaultKind::stall, "SFWi"});
  desk.click("Next");
  desk.awaitStop();
  see("alert");
  desk.send({Qt::Key_Return});
  see("main, failed run");
  desk.click("Details…");
  see("details");
  desk.send({Qt::Key_Escape});
  desk.qm5->clearRequests();
  desk.stopAt({.sleep = true});
  desk.click("Next");
  desk.awaitStop();
  see("progress, looking");
  desk.goOn({.request = 20});
  see("progress, writing");
  desk.clock.sleep(6000);
  see("progress, waiting");
  desk.goOn({.request = 120});
  see("progress, checking");
  desk.bus.unplug();
  see("progress, gone");
  desk.goOn({});
  see("alert, gone");
  desk.send({Qt::Key_Return});
  desk.plug({});
  desk.click("Next");
  desk.awaitStop();
  see("finish");
  desk.bus.unplug();
  see("grown finish");
  desk.plug({});  // another one, for the longest text
  while (desk.texts().find("still reported") == std::string::npos) std::this_thread::yield();
  see(kLast);
}

// In a process of its own. Returns whether all was well.
bool lookAtAllOn(const Desktop& desktop, const Look& look) {
  QTemporaryFile screens;
  EXPECT_TRUE(screens.open());
  const QSize size = desktop.screen * desktop.scale;
  screens.write(QString(R"({"screens": [{"name": "", "x": 0, "y": 0, "width": %1, "height": %2,
      "logicalDpi": 96, "logicalBaseDpi": 96, "dpr": 1}]})")
                    .arg(size.width())
                    .arg(size.height())
                    .toUtf8());
  screens.close();
  qputenv("QT_QPA_PLATFORM", "offscreen:configfile=" + screens.fileName().toUtf8());
  qputenv("QT_SCALE_FACTOR", QByteArray::number(desktop.scale));
  const auto caseOf = [&](std::size_t) {
    return Desk::Case{desktop.name, true, [&](Desk& desk) { lookAtAll(desk, desktop.font, look); }};
  };
  return Desk::tryAll("looks", 1, caseOf, [&](Desk& desk, const auto& begin) {
    Desk::wholeProgram(desk, [&] {
      begin();
      QApplication::setLayoutDirection(desktop.direction);
      if (desktop.ground.isValid()) QApplication::setPalette({desktop.ground, desktop.ground});
    });
  });
}

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

// The main window's own, as the windows on it are its children too.
QImage signOf(const QWidget& main) {
  for (auto* box : main.findChildren<QWidget*>("deviceStatus")) {
    if (box->window() != &main) continue;
    const QImage sign = box->findChild<StatusSign*>()->grab().toImage();
    // At this place there is the main colour of all of them.
    return sign.createMaskFromColor(sign.pixel(sign.width() / 2, sign.height() * 83 / 100));
  }
  return {};
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

class Looks : public testing::TestWithParam<Desktop> {};

TEST_P(Looks, AreWholeTidyAndReadable) {
  const Desktop& desktop = GetParam();
  std::map<std::string, QSize> sizes;
  QList<QImage> signs;
  const QWidget* main = nullptr;
  QPoint place;                                      // of the button of the finish dialog
  const QSize room = desktop.screen - QSize(0, 24);  // a title bar
  EXPECT_TRUE(lookAtAllOn(desktop, [&](const std::string& state, QWidget& top) {
    if (!main) main = &top;
    if (!signs.contains(signOf(*main))) signs.push_back(signOf(*main));
    EXPECT_TRUE(state != kLast || signs.size() == 3);
    expectTidy(top, desktop);
    EXPECT_EQ(top.layoutDirection(), Qt::LeftToRight);
    for (auto* picture : top.findChildren<Picture*>()) {
      if (&top == main) expectSharp(*picture, "qm5");
    }
    for (auto* button : top.findChildren<QPushButton*>()) {
      EXPECT_TRUE(!button->isVisible() || button->visibleRegion() == button->rect());
    }
    if (state == "finish") {
      expectInStep(top, *main);
      place = top.findChild<QPushButton*>()->mapToGlobal(QPoint());
    }
    if (state.starts_with("grown")) {
      EXPECT_EQ(top.findChild<QPushButton*>()->mapToGlobal(QPoint()), place);
    }
    EXPECT_EQ(top.isModal(), !state.starts_with("main")) << "it blocks the others";
    EXPECT_EQ(top.parentWidget() == nullptr, &top == main) << "it stands on the window below";
    EXPECT_EQ(top.size(), top.size().boundedTo(room));
    const auto window = state.substr(0, state.find(','));
    EXPECT_EQ(sizes.try_emplace(window, top.size()).first->second.width(), top.width())
        << "it jumps";
  }));
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
  std::string heard;
  const std::function<void(QAccessibleInterface&)> read = [&](QAccessibleInterface& node) {
    const auto* label = qobject_cast<QLabel*>(node.object());
    if (node.state().invisible || (label && label->text().isEmpty())) return;
    const auto kind = kinds.find(node.role());
    const std::string name = nameOf(node.object());
    const bool is_group = kind == kinds.end() || node.role() == QAccessible::StatusBar;
    EXPECT_EQ(name.empty(), is_group && node.childCount() > 0) << node.role();
    EXPECT_EQ(name.find_first_of("<_"), name.npos) << name << ": not as a person would say it";
    const bool stays = label && (label->font().weight() > QFont::Normal ||
                                 label->objectName() == "txtWhatHappens");
    if (kind != kinds.end() && (!label || stays)) heard += kind->second + name + ", ";
    if (auto* value = node.valueInterface())
      heard += "at " + value->currentValue().toString().toStdString() + ", ";
    if (node.role() == QAccessible::EditableText) return;  // what scrolls it has no name
    for (int i = 0; i < node.childCount(); ++i) read(*node.child(i));
  };
  read(*QAccessible::queryAccessibleInterface(&top));
  const QWidget* first = top.focusWidget();
  do {
    heard += "Tab " + nameOf(top.focusWidget()) + " ";
    QTest::keyClick(&top, Qt::Key_Tab);
  } while (top.focusWidget() != first && heard.size() < 1000);
  return heard;
}

std::string mainWith(const std::string& sign) {
  return "window QM5 Updater, picture QM5, title Update the firmware of your QM5, title Connect "
         "your "
         "QM5 by USB, then press Next. Writing the new firmware can take several minutes., title "
         "Until it "
         "is "
         "done, do not unplug the QM5 and do not let the computer sleep., status, picture " +
         sign + ", button Next, button Exit, Tab Next Tab Exit ";
}
std::map<std::string, std::string> expected_aloud = {
    {"main, absent", mainWith("Information")},
    {"main, connected", mainWith("Good")},
    {"main, not permitted", mainWith("Caution")},
    {"main, unusable", mainWith("Caution")},
    {"alert",
     "alert QM5 Updater, picture Caution, title Flash firmware error, button OK, Tab "
     "OK "},
    {"exit",
     "alert QM5 Updater, picture Caution, title Exit confirmation, button Quit, button Don't quit, "
     "Tab Don't quit Tab Quit "},
    {"progress, writing",
     "window Updating the QM5, title Do not unplug the QM5, bar Progress of the update, at 330, "
     "button Abort, Tab Updating the QM5 Tab Abort "},
    {"finish",
     "window Firmware update successful!, picture QM5, title Firmware update successful!, button "
     "Confirm & Exit, Tab Confirm & Exit "}};

TEST(Windows, AreNamedAndReachedByTab) {
  const auto look = [](const std::string& state, QWidget& top) {
    if (state == "main, absent") {
      // As when a screen reader runs, which only a platform can tell.
      QGuiApplicationPrivate::platformIntegration()->accessibility()->setActive(true);
    }
    const std::string heard = readAloud(top);
    const auto expected = expected_aloud.extract(state);
    EXPECT_EQ(heard, expected ? expected.mapped() : heard);
    EXPECT_TRUE(state != kLast || expected_aloud.empty());
  };
  EXPECT_TRUE(lookAtAllOn({"", {1280, 800}, 1, 1, {}, true}, look));
}

}  // namespace
}  // namespace qm5::test
