#pragma once

#include "e2e/qt_player_fixture.h"

// The Qt program on a screen of its own: its widgets are clicked and typed on, and what it shows and plays is looked
// at. The cases build on one another, in order.
class QtPlayerTest : public QtPlayerFixture {
    Q_OBJECT

public:
    // Not a test: writes the pictures of the documents, with `clip` playing, into `folder`.
    void makePictures(const QString& clip, const QString& folder);

private slots:
    void initTestCase();
    void playsWhatIsTypedIntoTheUrlField();
    void pausesAtTheSpaceBar();
    void seeksWhileTheSliderIsDragged();
    void playsSlowerAndFaster();
    void changesTheVolumeAndMutes();
    void drawsTheLastMinute();
    void recordsWhatIsPlayed();
    void playsOnAnotherDeviceFromTheMenu();
    void keepsTheShapeOfADroppedFilesPicture();
    void showsTheSubtitlesOfADroppedFile();
    void showsTheSamePicturesInASecondWindow();
    void fillsTheScreenAndComesBack();
    void startsAgainAtItsPositionWhenHardwareDecodingIsSwitched();
    void takesAnotherMaster();
    void playsAnotherTrackFromTheMenu();
    void savesThePicture();
    void stopsAndPlaysAgain();
    void playsAFilmAgainAndAgain();
    void playsAPartAgainAndAgain();
    void stepsFromPictureToPicture();
    void goesOnFromTheEnd();
    void saysThatItWaitsForData();
    void saysWhyAFileCantBePlayed();
    void retriesASourceInsteadOfGivingUp();
    void endsThePlayerBeforeItsWindow();

private:
    void playsTwoTurns();
};
