// Chromium for a Python test: reads a JSON line for each command, writes a JSON line with the answer.
import { createRequire } from "node:module";
import { readFileSync, writeFileSync } from "node:fs";
import { createInterface } from "node:readline";

const require = createRequire(new URL("../../web/", import.meta.url));
const { chromium } = require("playwright-core");
const browser = await chromium.launchPersistentContext(process.argv[2], {
  executablePath: "/usr/bin/chromium",
  args: ["--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run", "--disable-background-networking",
    "--disable-component-update", "--disable-sync"],
  viewport: null,
  timeout: 120_000,
});
let page, inspector;
let problems = [];
let expect_no_server = false;

/** A page that has nothing of the one before. */
async function new_page() {
  const before = browser.pages();
  page = await browser.newPage();
  inspector = await browser.newCDPSession(page);
  page.setDefaultTimeout(60_000);
  page.on("pageerror", (error) => problems.push(String(error)));
  page.on("console", (message) => {
    if (!["error", "warning"].includes(message.type())) return;
    // The browser itself reports a connection that a server refuses; the page cannot prevent it.
    if (expect_no_server && /WebSocket connection to|ERR_/.test(message.text())) return;
    problems.push(message.text());
  });
  await Promise.all(before.map((one) => one.close()));
}

const commands = {
  open: async ({ url, width = 1280, height = 800, scheme = "light" }) => {
    await new_page();
    await page.emulateMedia({ colorScheme: scheme });
    await page.setViewportSize({ width, height });
    await page.goto(url);
  },
  look: async ({ width, height, scheme }) => {
    await page.emulateMedia({ colorScheme: scheme });
    await page.setViewportSize({ width, height });
  },
  evaluate: ({ script }) => page.evaluate(script),
  until: async ({ script }) => void (await page.waitForFunction(script, undefined, { polling: 50 })),
  press: ({ key }) => page.keyboard.press(key),
  click: ({ selector }) => page.click(selector),
  choose: ({ selector, value }) => page.selectOption(selector, value).then(() => undefined),
  fill: ({ selector, text }) => page.fill(selector, text),
  /** A .webp or a .png. */
  screenshot: async ({ path }) => {
    const picture = await inspector.send("Page.captureScreenshot", path.endsWith(".webp") ? { format: "webp", quality: 85 } : {});
    writeFileSync(path, Buffer.from(picture.data, "base64"));
  },
  problems: () => problems.splice(0),
  without_server: ({ expected }) => void (expect_no_server = expected),
  accessibility: async () => {
    await page.evaluate(readFileSync(require.resolve("axe-core/axe.min.js"), "utf8"));
    const { violations } = await page.evaluate(() => axe.run());
    return violations.map((one) => `${one.id}: ${one.nodes.map((node) => `${node.target} ${node.failureSummary}`).join("; ")}`);
  },
  /** Bytes of the heap after a collection, without typed arrays and with them. */
  memory: async () => {
    await inspector.send("HeapProfiler.collectGarbage");
    const { usedSize, backingStorageSize = 0 } = await inspector.send("Runtime.getHeapUsage");
    return { used: usedSize, arrays: backingStorageSize };
  },
};

for await (const line of createInterface({ input: process.stdin })) {
  const { command, ...options } = JSON.parse(line);
  let answer;
  try {
    answer = { result: (await commands[command](options)) ?? null };
  } catch (error) {
    answer = { error: String(error) };
  }
  process.stdout.write(`${JSON.stringify(answer)}\n`);
}
await browser.close();
