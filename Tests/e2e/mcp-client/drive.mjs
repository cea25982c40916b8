// Drives `veltrane mcp serve` with the official SDK's stdio client and
// prints one JSON line per step for the calling script to check:
//   {"step": "...", "error": bool, "text": "..."}
// Usage: node drive.mjs VELTRANE STEPS_JSON
//   STEPS_JSON: [["tools"], ["call", "set_route", {"app": "curl", ...}], ...]
import { Client } from "@modelcontextprotocol/sdk/client/index.js";
import { StdioClientTransport } from "@modelcontextprotocol/sdk/client/stdio.js";

const [veltrane, stepsText] = process.argv.slice(2);
const transport = new StdioClientTransport({
  command: veltrane,
  args: ["mcp", "serve"],
  env: process.env,
  stderr: "inherit",
});
const client = new Client({ name: "veltrane-e2e", version: "1.0.0" });
await client.connect(transport);
const say = (step, error, text) => console.log(JSON.stringify({ step, error, text }));
say("initialize", false, `${client.getServerVersion()?.name} ${transport.sessionId ?? ""}`.trim());
for (const [kind, name, args] of JSON.parse(stepsText)) {
  if (kind === "tools") {
    const { tools } = await client.listTools();
    say("tools", false, tools.map((tool) => tool.name).join(" "));
  } else {
    try {
      const result = await client.callTool({ name, arguments: args ?? {} });
      say(name, Boolean(result.isError), result.content.map((part) => part.text).join("\n"));
    } catch (error) {
      say(name, true, `protocol error: ${error.message}`);
    }
  }
}
await client.close();
