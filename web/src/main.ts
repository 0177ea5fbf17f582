import "uplot/dist/uPlot.min.css";
import "./page.css";
import { Live_source } from "./live";
import { show } from "./page";

show(new Live_source());
