// The guide that F1 opens.
#include <QString>

#include "desktop/fHelp.h"

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
<p>F1 opens this page at the field that has the keyboard.
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
degrees; the numbers stay as they are. A size that is 10 % off does no harm, one that is 30 % off does.</p>
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
<a name="cmdStop"></a><h3>Stop Search</h3>
<p>Ends the search that is running (Escape). What was found before stays.</p>

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
<a name="fHistogram"></a><h3>Levels</h3>
<p>Drag the two lines or the sliders, or type counts. From then on they stay as they are until you
press S again in the image.</p>

<p><img src="qrc:/help/levels.png" alt="The levels window: a histogram with two lines to drag"></p>

<a name="fStats"></a><a name="fRelPhot"></a><h2>Measuring</h2>
<p>With the star statistics open (Ctrl+T) a click on a star measures it; a double click opens them.
Relative photometry (Ctrl+R) compares two stars that are clicked one after the other.</p>

<p><img src="qrc:/help/statistics.png" alt="The star statistics: figures, and the profile of a star"></p>

<a name="fSolutions"></a><a name="tblSolutions"></a><h2>Many pictures</h2>
<p>The table of solutions (Ctrl+B) keeps every solve of the session. Enter or a double click opens one
again. <b>Solve Folder</b> solves all pictures of a folder in the background, while you go on.</p>

<p><img src="qrc:/help/solutions.png" alt="The table of solutions"></p>

<a name="telescope"></a><a name="cmdLoad"></a><a name="cmdSync"></a><h2>The telescope</h2>
<p><b>Load</b> takes the centre from where the telescope points, <b>Sync</b> tells it where it really
points; a result that is not sure is asked about first.</p>

<a name="fSettings"></a><a name="txtCatalogFolder"></a><a name="txtTelescope"></a>
<a name="txtLongitude"></a><a name="cboTheme"></a><h2>Settings</h2>
<p>Where the catalog is and what it holds, the address of the telescope with the
devices that its server has and a test, the longitude for
the sidereal time, and the colours. <b>Night</b> is dark red, for eyes that are used to the dark. An
environment variable (<tt>VESTREL_CATALOG</tt>, <tt>VESTREL_TELESCOPE</tt>,
<tt>VESTREL_LONGITUDE</tt>) gives the value at the start; what is set here takes precedence.</p>
<p><img src="qrc:/help/settings.png" alt="The settings"></p>

<a name="fCatalog"></a><h2>The catalog</h2>
<p><b>Build Catalog</b> (menu Edit) makes the catalog of stars from what other programs have installed,
from tables of your own, or from both. A star that several sources have is taken only once. The old catalog
stays until the new one is complete, and <b>Stop</b> leaves it as it was. The window may be closed
meanwhile.</p>
<p><b>Tables</b> are for searches without a centre, for fields whose diagonals lie in the range that is
given. Fields below 0.9° need a catalog deeper than Tycho-2. When no source is ticked, only the
tables are made.</p>
)");
}

}  // namespace vestrel
