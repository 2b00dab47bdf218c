// The guide that F1 opens.
#include <QRegularExpression>
#include <QString>

#include "desktop/fHelp.h"
#include "desktop/libWindows.h"
#include "program/mParameterTexts.h"

namespace vestrel {

QString HelpGuide() {
    return QString::fromUtf8(R"(
<a name="top"></a><h2>From a picture to its place in the sky</h2>
<ol>
<li><b>Open</b> a picture (Ctrl+O), or drop it on a window.</li>
<li>Press <b>Just Solve</b> (Ctrl+Enter).</li>
<li>Look at the word below the status line: <b>Sure</b>, <b>Check</b> or <b>Doubtful</b>.</li>
<li><b>Show Image</b> (Ctrl+I) shows what was matched, with the names of what is in the picture.</li>
<li><b>Export Whole Picture</b> (Ctrl+Shift+E in the image window) writes it as PNG or PDF.</li>
</ol>
<p>F1 opens this page at the field that has the keyboard; after Shift+F1, a click on a field tells what it is.
<a href="#fKELInfo">Solving</a>, <a href="#trust">trust</a>, <a href="#fImage">the image</a>,
<a href="#fStats">measuring</a>, <a href="#fSolutions">many pictures</a>,
<a href="#telescope">the telescope</a>, <a href="#fSettings">settings</a>.</p>

<a name="fKELInfo"></a><h2>Solving</h2>
<p><img src="qrc:/help/solved.png" alt="The solve window after a match: inputs on the left, what was found on the right"></p>
<a name="txtRA"></a><a name="txtDec"></a><h3>Approximate centre</h3>
<p>Right ascension as hours, minutes and seconds (<tt>05 34 32</tt>, <tt>5h34m32s</tt>) or as degrees
when it is a plain number; declination as degrees, minutes and seconds or plain degrees. A whole
position pasted into either box fills both, with any kind of minus or prime sign. So does the name
of an object: <tt>M 42</tt>, <tt>NGC 7000</tt>, <tt>Vega</tt>, <tt>Andromeda Galaxy</tt>. When a
picture is opened, the boxes take what its header says.</p>
<a name="txtXsize"></a><a name="txtYsize"></a><a name="cmdUnits"></a><h3>Approximate size</h3>
<p>Width and height of the picture on the sky. The button beside them changes between arcminutes and
degrees; the numbers stay as they are. A size that is 10 % off does no harm. With one that is 30 % too
large Plate Match finds nothing now and then; Just Solve goes on from there.</p>
<a name="txtRegions"></a><h3>Search limit</h3>
<p>How many regions Plate Match tries, on a spiral about the centre. 25 regions reach about the height
of one picture in each direction.</p>
<a name="cmdMatch"></a><h3>Plate Match</h3>
<p>Compares the stars of the picture with those of the catalog around the centre, region by region.</p>
<a name="cmdJustSolve"></a><a name="cmdOffer"></a><h3>Just Solve</h3>
<p>Tries what is typed, then what the header says, then the whole sky, first with fast
methods and then with slow ones, until a match is sure. The status line shows the present stage and
the time left. A search of the whole sky needs quad tables (<tt>vestrel-catalog quads</tt>).</p>
<a name="cmdMORA"></a><h3>MORA</h3>
<p>Looks four-star patterns up in the quad tables. It finds where the picture points and puts that into
the inputs; Plate Match then measures it.</p>
<a name="fMORA"></a><a name="ListMORA"></a><h3>Messages of MORA</h3>
<p>What it finds on the way (Ctrl+M): the patterns that were tried, and those that fit.</p>
<a name="cmdStop"></a><h3>Stop Search</h3>
<p>Ends the search that is running (Escape). An earlier solution of the picture was given up when the
search began, but the table of solutions (Ctrl+B) has it.</p>
<a name="txtDetails"></a><h3>Details</h3>
<p>What the last solve found, or what it saw when it found nothing, as text to be selected and copied
(Ctrl+Shift+C copies all).</p>
<a name="chkKeep"></a><h3>Keep Open</h3>
<p>Another program that starts Vestrel for one picture has it close after ten seconds. A tick here keeps it
open.</p>

<a name="trust"></a><a name="fResiduals"></a><a name="cmdResiduals"></a><h2>Trust</h2>
<p><b>Sure</b>: chance gives such a match less than once in a million searches. <b>Check</b>: it is a
match, but the fit is poor, the field has another size than was given, or only its place is known.
<b>Doubtful</b>: it can be chance. The text beside the word says why, and what would settle it.</p>
<p>The residuals window (Ctrl+D) shows how far each matched star is from where the solution puts it.
Arrows in all directions are noise, arrows that grow toward the corners come from the lens, and one
long arrow is a wrong pair.</p>

<p><img src="qrc:/help/residuals.png" alt="The residuals window: an arrow for each matched star"></p>

<a name="fImage"></a><a name="picImage"></a><h2>The image</h2>
<p>The wheel zooms about the pointer, and dragging moves the image. F fits it into the window, 1 shows
single pixels, S chooses levels that show the stars at each zoom, Z magnifies what is under the
pointer, I inverts. E, C and M show the extracted, the catalog and the matched stars; G shows their
magnitudes, O the names of objects, R the grid, N the compass. The right button (or the menu key) copies coordinates, makes a place the
approximate centre, measures a star, and tells what is there.</p>
<p><img src="qrc:/help/image.png" alt="The image window with matched stars, their magnitudes, names and the grid"></p>
<a name="fHistogram"></a><a name="numBlack"></a><a name="numWhite"></a><a name="sldBlack"></a><a name="sldWhite"></a><h3>Levels</h3>
<p>The counts that are shown as black and as white. Drag the two lines or the sliders, or type counts.
From then on they stay as they are until you press S again in the image.</p>
<a name="cboTransfer"></a><h3>Transfer</h3>
<p>How the greys between black and white rise with the counts. Square root, asinh and logarithm show faint
stars without burning out the bright ones.</p>
<a name="chkLogarithmic"></a><h3>Logarithmic histogram</h3>
<p>Heights as logarithms: the few pixels of stars are seen beside the many of the sky.</p>
<a name="cmdAutomatic"></a><h3>Automatic</h3>
<p>Levels that show stars and noise.</p>

<p><img src="qrc:/help/levels.png" alt="The levels window: a histogram with two lines to drag"></p>

<a name="fStats"></a><a name="fRelPhot"></a><h2>Measuring</h2>
<p>With the star statistics open (Ctrl+T) a click on a star measures it; a double click opens them.
Relative photometry (Ctrl+R) compares two stars that are clicked one after the other.</p>
<a name="numAperture"></a><h3>Aperture radius</h3>
<p>The counts within this circle are added to the star's flux. Three times the FWHM holds nearly all of the
light; a smaller circle is better for faint stars.</p>
<a name="numBackground"></a><h3>Background radius</h3>
<p>Inner radius of the ring around the star that tells how bright the sky is there. No light of the star
should reach it.</p>
<a name="txtStatistics"></a><h3>Figures of a star</h3>
<p>Its place, the width of its light by three methods, its flux with the error, and once the picture is
solved its magnitude and the nearest star of the catalog. Copy takes all as text.</p>
<a name="chkKeepFirst"></a><h3>Keep the first star</h3>
<p>Every click then compares another star with the same first one.</p>
<a name="tblPhotometry"></a><h3>Table of comparisons</h3>
<p>One row for each pair: the difference in magnitudes with its error, and the second star's magnitude
when the picture is solved. It can be exported as CSV.</p>

<p><img src="qrc:/help/statistics.png" alt="The star statistics: figures, and the profile of a star"></p>

<a name="fFITSHeader"></a><a name="textbox"></a><h2>The header</h2>
<p>What the file says of itself (Ctrl+H): a summary, then its cards as they stand.</p>

<a name="fSolutions"></a><a name="tblSolutions"></a><h2>Many pictures</h2>
<p>The table of solutions (Ctrl+B) keeps every solve of the session. Enter or a double click opens one
again. <b>Solve Folder</b> solves all pictures of a folder in the background, while you go on.</p>

<p><img src="qrc:/help/solutions.png" alt="The table of solutions"></p>

<a name="telescope"></a><a name="cmdLoad"></a><a name="cmdSync"></a><h2>The telescope</h2>
<p><b>Load</b> takes the centre from where the telescope points, <b>Sync</b> tells it where it really
points; a result that is not sure is asked about first.</p>

<a name="fSettings"></a><h2>Settings</h2>
<p>An environment variable (<tt>VESTREL_CATALOG</tt>, <tt>VESTREL_TELESCOPE</tt>,
<tt>VESTREL_LONGITUDE</tt>) gives the value at the start; what is set here takes precedence.</p>
<a name="txtCatalogFolder"></a><a name="txtCatalogFacts"></a><h3>Catalog folder</h3>
<p>Where the stars of the catalog are; when empty, the usual folder. Below it stands what is there.</p>
<a name="txtTelescope"></a><h3>Telescope</h3>
<p>The address of an INDI server and the name of its device:
<tt>indi://localhost:7624/Telescope Simulator</tt>. <b>Devices</b> asks the server what it has, and
<b>Test</b> asks the telescope where it points.</p>
<a name="txtLongitude"></a><h3>Longitude</h3>
<p>Degrees, east positive, for the sidereal time at the bottom of the main window. When empty, it is the
middle of the time zone.</p>
<a name="cboTheme"></a><h3>Colours</h3>
<p><b>Night</b> is dark red, for eyes that are used to the dark.</p>
<p><img src="qrc:/help/settings.png" alt="The settings"></p>

<a name="fCatalog"></a><a name="txtCatalogContent"></a><a name="txtBuildLog"></a><h2>The catalog</h2>
<p><b>Build Catalog</b> (menu Edit) makes the catalog of stars from what other programs have installed,
from tables of your own, or from both. A star that several sources have is taken only once. The old catalog
stays until the new one is complete, and <b>Stop</b> leaves it as it was. The window may be closed
meanwhile.</p>
<a name="lstCatalogSources"></a><h3>Sources</h3>
<p>What was found on this computer; those with a tick are taken. A folder or a table of stars can be
added.</p>
<a name="txtFaintest"></a><h3>Faintest magnitude</h3>
<p>Fainter stars are left out, which makes the catalog smaller. When empty, all are taken.</p>
<a name="chkTables"></a><a name="numSmallestField"></a><a name="numLargestField"></a><h3>Tables</h3>
<p>They are for searches without a centre, for fields whose diagonals lie in the range that is
given. Fields below 0.9° need a catalog deeper than Tycho-2. When no source is ticked, only the
tables are made.</p>
)");
}

QString HelpOn(const QString& name) {
    if (name.isEmpty()) return {};
    const std::string parameter = ParameterHelpOn(Utf8(name));
    if (!parameter.empty()) return "<p>" + QtText(parameter).toHtmlEscaped() + "</p>";
    const QString guide = HelpGuide();
    const qsizetype anchor = guide.indexOf("<a name=\"" + name + "\">");
    if (anchor < 0) return {};
    // From the heading to the next anchor, without the pictures.
    const qsizetype heading = guide.indexOf("<h", anchor);
    const qsizetype end = guide.indexOf("<a name=", heading);
    static const QRegularExpression picture("<p><img[^>]*></p>");
    return guide.mid(heading, end < 0 ? -1 : end - heading).remove(picture).trimmed();
}

}  // namespace vestrel
