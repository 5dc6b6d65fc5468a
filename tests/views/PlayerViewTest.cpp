// The preview: pictures upright, whole and unstretched, and the view kept when the video changes.

#include "ViewsTestSupport.h"

#include "views/PlayerView.h"

#include <QImage>

#include <cmath>

namespace vantrix::testing {
namespace {

// Each stored rotation, opened in turn in one window, is shown upright and letterboxed at the
// display aspect with the whole frame visible (frame 0's barcode reads from what the view paints),
// by the same view following each new player.
TEST(PlayerViewTest, ShowsEachVideoUprightAndWhole) {
  Editor editor;
  PlayerView* view = nullptr;
  for (const int rotation : {0, 90, 180, 270}) {
    SCOPED_TRACE(rotation);
    FixtureSpec recipe = clipSpec();
    recipe.width = 320;
    recipe.height = 240;
    recipe.rotation = rotation;
    editor.openAndWait(fixture(recipe));
    if (!view) view = editor.window().findChild<PlayerView*>();
    EXPECT_EQ(editor.window().findChild<PlayerView*>(), view);
    EXPECT_EQ(view->player(), editor.model().player());
    const double aspect = rotation % 180 == 0 ? 320.0 / 240 : 240.0 / 320;
    ASSERT_TRUE(waitUntil([&] {
      const QRectF shown = view->pictureRect();
      return !shown.isEmpty() && std::abs(shown.width() / shown.height() - aspect) < 0.01;
    })) << "shown at "
        << view->pictureRect().width() << " x " << view->pictureRect().height();
    const QRectF picture = view->pictureRect();
    EXPECT_TRUE(view->videoRect().adjusted(-0.5, -0.5, 0.5, 0.5).contains(picture));
    std::optional<std::int64_t> barcode;
    waitUntil([&] { return (barcode = readBarcode(view->grab(picture.toAlignedRect()).toImage())).has_value(); }, 3000);
    EXPECT_EQ(barcode, 0);
  }
}

}  // namespace
}  // namespace vantrix::testing
