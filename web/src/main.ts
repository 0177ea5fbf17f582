import "uplot/dist/uPlot.min.css";
import "./page.css";
import "./verdict.css";
import "./panel.css";
import "./panels/track.css";
import "./panels/now.css";
import "./panels/sky.css";
import "./panels/health.css";
import "./panels/control.css";
import "./panels/time.css";
import "./panels/wire.css";
import "./panels/log.css";
import "./panel_alone.css";
import "./widths.css";
import "./large_screen.css";
import { Live_source } from "./live";
import { show } from "./page";

show(new Live_source());
