// The preview: pictures upright, whole and unstretched, and the view kept when the video changes.

#include "ViewsTestSupport.h"

#include "views/PlayerView.h"

#include <QImage>

namespace vantrix::testing {
namespace {

// Every stored rotation is shown upright and letterboxed at the display aspect, the whole frame
// visible: the barcode of frame 0 reads from what the view paints.
TEST(PlayerViewTest, ShowsThePictureUprightAndWhole) {
  for (const int rotation : {0, 90, 180, 270}) {
    SCOPED_TRACE(rotation);
    FixtureSpec recipe = clipSpec();
    recipe.width = 320;
    recipe.height = 240;
    recipe.rotation = rotation;
    Editor editor;
    editor.openAndWait(fixture(recipe));
    auto* view = editor.window().findChild<PlayerView*>();
    ASSERT_NE(view, nullptr);
    ASSERT_TRUE(waitUntil([&] { return !view->pictureRect().isEmpty(); }));
    const QRectF picture = view->pictureRect();
    const double shownAspect = rotation % 180 == 0 ? 320.0 / 240 : 240.0 / 320;
    EXPECT_NEAR(picture.width() / picture.height(), shownAspect, 0.01);
    EXPECT_TRUE(view->videoRect().adjusted(-0.5, -0.5, 0.5, 0.5).contains(picture));

    std::optional<std::int64_t> barcode;
    waitUntil(
        [&] {
          const QImage shot = view->grab(picture.toAlignedRect()).toImage();
          barcode = readBarcode(shot);
          return barcode.has_value();
        },
        3000);
    EXPECT_EQ(barcode, 0);
  }
}

TEST(PlayerViewTest, OpeningAnotherVideoKeepsTheViewAndFollowsTheNewPlayer) {
  Editor editor;
  editor.openAndWait(fixture(clipSpec()));
  auto* view = editor.window().findChild<PlayerView*>();
  EXPECT_EQ(view->player(), editor.model().player());
  Player* first = view->player();

  FixtureSpec other = clipSpec();
  other.container = Container::mov;
  editor.openAndWait(fixture(other));
  EXPECT_EQ(editor.window().findChild<PlayerView*>(), view);
  EXPECT_EQ(view->player(), editor.model().player());
  EXPECT_NE(view->player(), first);
}

}  // namespace
}  // namespace vantrix::testing
