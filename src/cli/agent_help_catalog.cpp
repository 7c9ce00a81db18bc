#include "cli/agent_help_catalog.h"

#include <initializer_list>

namespace vumo {

namespace {

// Blocks are Markdown: a title, then paragraphs and lists, each separated by one empty line.
std::string markdown(std::initializer_list<std::initializer_list<const char*>> blocks) {
  std::string text;
  for (const auto& block : blocks) {
    if (!text.empty()) text += "\n\n";
    bool first = true;
    for (const char* line : block) {
      if (!first) text += '\n';
      text += line;
      first = false;
    }
  }
  return text;
}

}  // namespace

std::string AgentHelpCatalog::text(CLIAgentHelpTopic topic) {
  switch (topic) {
    case CLIAgentHelpTopic::workflow:
      return markdown({
          {"# Vumo Agent 工作流"},
          {
              "1. 先执行`describe "
              "<id-prefix>`确认项目、轨道、Timeline、字幕数量与Digest；已有字幕时执行`captions-read`读取Source "
              "Time正文，不要猜测媒体内容。",
              "2. 可执行`idle <id-prefix> [--track microphone|system-audio] --min-ms 1500 --keep-tail-ms 500 "
              "--min-removal-ms "
              "150`"
              "分析振幅静默与无鼠标操作；有声桶会断开静默，帧对齐的recommendedCuts只来自无声且无操作的quietSpans。silen"
              "ceSpans不等同于无人声，剪除或加速前必须预演。",
              "3. "
              "修改命令默认只预演，不会写盘。向用户报告before/"
              "after、字幕影响与警告，等待用户明确确认；Agent不得替用户确认。",
              "4. "
              "禁止直接修改`.vumo`项目文件。单项提交必须使用预演返回的`--apply`与`--expect`"
              "参数；批量计划必须使用返回的三Digest确认参数。",
              "5. Digest冲突时停止，重新执行describe和预演，禁止强行覆盖。需要回滚时先执行history，再对`restore "
              "--index N`预演并确认。",
              "6. 时间范围单位为毫秒，默认是成片Sequence Time；只有明确使用源时间时才加`--source`。",
              "7. 多项修改优先使用Edit "
              "Plan。结构剪辑与字幕同时请求时，已有字幕或临时转录只用于分析；先确认并提交全部剪切和变速，再基于最新Time"
              "line生成最终字幕，最后用frame检查，回到编辑器预览和导出视频。",
          },
      });
    case CLIAgentHelpTopic::editPlan:
      return markdown({
          {"# Vumo Edit Plan"},
          {
              "1. 执行`edit-plan-prepare <id-prefix>`，读取返回的jobID、planPath、Schema示例与Digest。",
              "2. 把完整Edit Plan Schema 3写入planPath，再执行`edit-plan-preview <id-prefix> --job "
              "<jobID>`整批预演。Schema 1/2仍可读取。",
              "3. 所有计划时间固定为Source milliseconds，避免前序操作改变后续定位。",
              "4. 最多500项，只能包含Source Time "
              "cut、speed、zoom-clear、zoom-reconcile、zoom-"
              "add和一组settings。cut会在帧对齐剪切后自动保留、裁短、拆分或删除受影响的现有镜头，并保留焦点与倍率；zoom"
              "-reconcile仅为旧计划兼容入口，不能与zoom-clear并用。",
              "5. "
              "speed倍率为0.50至4.00，步进0.01；重叠范围不得使用不同倍率。zoom-add可写`{\"type\":\"zoom-add\","
              "\"range\":{\"startMilliseconds\":1000,\"endMilliseconds\":3000},\"level\":1.8,\"focusX\":0.4,\"focusY\":"
              "0.5}`明确焦点；省略焦点时取区间最后一次左键点击，无点击则居中。运镜不得重叠，建议单段1.5至4秒、倍率1."
              "4至2.2。",
              "6. "
              "向用户报告整批影响并等待明确确认。提交时只执行预演返回的confirmationArguments，必须同时校验Timeline、Cap"
              "tion与Plan Digest，并且只写入一次Timeline。",
          },
      });
    case CLIAgentHelpTopic::captions:
      return markdown({
          {"# Vumo 字幕工作流"},
          {
              "1. "
              "已有字幕可用于结构分析；没有字幕且语义剪辑确有需要时，本地Agent可先执行`captions-prepare`"
              "取得临时转录，但不得执行`captions-import`。也可执行`captions-generate <id-prefix> [--track "
              "auto|microphone|system-audio]`"
              "使用用户已配置的百炼Key；该命令默认只生成交换文件和预演入口，不直接写入项目。完成并确认全部结构剪辑后，"
              "重新执行`describe`和对应字幕生成，只用绑定最新Timeline "
              "Digest的新任务生成最终字幕。重新生成时先用`captions-read`"
              "读取现有正文与高亮；此后Timeline如有变化，必须丢弃旧任务并从本步重新开始。",
              "2. "
              "先检查本机已有的转录引擎和模型：优先检查Vumo持久目录`$XDG_DATA_HOME/Vumo/TranscriptionModels/"
              "`及其子目录，再检查所用引擎的通用缓存。发现候选模型时必须确认文件完整、大小合理并验证引擎可加载，不得因"
              "漏查Vumo目录而重复下载。确认缺失后才执行`system-info`"
              "，向用户展示推荐工具与模型、官方来源、预计下载量和磁盘占用、安装位置、完整命令及卸载方法，然后让用户选择"
              "：①由Agent安装；②用户手动安装；③暂不生成字幕。",
              "3. "
              "用户看到上述具体方案后明确选择由Agent安装，才可执行命令；该选择只授权本次列出的工具、模型和命令。不得使"
              "用`curl | "
              "sh`等远程脚本管道，默认不得使用`sudo`；安装包管理器、申请管理员权限或改变方案时必须再次单独确认。",
              "4. "
              "用户选择手动安装时，只提供可复制的安装与验证命令并停止，等待用户明确表示安装完成后再检查。用户选择暂不安"
              "装时立即停止字幕任务，不影响项目其他功能。",
              "5. "
              "自动或手动安装后都要验证转录工具与模型可用；下载、安装或验证失败时停止并说明原因，禁止伪造成功。任何情况"
              "下都不得上传音频。",
              "6. "
              "本地Agent和应用内百炼都使用同一音轨策略：默认auto时优先麦克风、无麦克风回退系统声音；显式指定缺失音轨时"
              "直接失败。转录所选音轨，但最终字幕只覆盖最新`describe.segments`保留的Source "
              "Time。完全落入删除区间的Cue必须丢弃；跨删除断点的Cue必须分别局部转录两侧保留音频后拆分，禁止猜测文字边界"
              "或沿用被删除文字。中文固定输出中国大陆简体中文并写`language: "
              "\"zh-Hans\"`；每条末尾不添加中文句号或英文句点，只有模型真实提供逐词时间时才写words。",
              "7. 在术语校正和句内停顿匹配前，先用ICU "
              "`Traditional-Simplified`"
              "对中文Cue正文、真实words、highlights及后续局部转录结果做确定性字形转换。只转换字形，不自由改写词义；`zh-"
              "Hant`、`zh-TW`、`zh-HK`不执行该转换。",
              "8. 用`idle <id-prefix> --track microphone|system-audio --min-ms 700 --silence-db "
              "-42`读取silenceSpans，track必须与captions-"
              "prepare返回的sourceTrack一致，再与粗字幕区间相交。只检查完全位于Cue内部、长度至少700ms且两侧各保留至少30"
              "0ms的静默候选；不得把句首、句尾或跨Cue静默当作拆分点。",
              "9. "
              "对候选静默分出的全部语音岛使用同一已验证引擎一次批量局部转录。先执行第7步字形转换，再只允许忽略Unicode空"
              "白及局部结果末尾单个中文句号或英文句点；局部文本按顺序拼接后与原Cue正文完全一致时，才按语音岛拆成多个Cue"
              "。不得按语义猜测边界；任何增字、漏字、改字、重复或歧义都保留原Cue，并报告未拆分候选。",
              "10. "
              "通读全部字幕并结合上下文保守校正术语，只修正确有把握的框架、库、编程语言、API、UI组件和基础技术名词。无"
              "法确认时保留原文，禁止改写原意。",
              "11. 报告“原文 → 修正”及上下文依据；没有修正也要说明。校正只基于完整字幕文本，不得为校对再次处理音频。",
              "12. "
              "highlights只标记最终字幕中逐字存在的关键词或短语，使用text和从1开始的occurrence定位。默认多数字幕不高亮"
              "，每条通常零至两个，不高亮语气词、连接词、标点或整句。",
              "13. 把Caption Exchange Schema "
              "1写入resultPath，禁止直接修改项目文件。模型只提供粗略句段时间时，执行`captions-import <id-prefix> --job "
              "<jobID> "
              "--align-audio`"
              "，用所选音轨的20ms包络保守收紧首尾静音；它不改正文、不自动分句，找不到可靠活动时保留原区间并警告。导入边"
              "界会对`zh`、`zh-CN`、`zh-SG`和`zh-Hans`再次执行同一确定性简体字形转换，并把语言归一为`zh-Hans`。",
              "14. "
              "报告字幕数、高亮数、简繁字形转换、逐条原始/"
              "建议区间、句内停顿拆分与未拆分候选、未对齐警告和术语校正清单，等待用户明确确认。得到确认后只执行confirma"
              "tionArguments；音频对齐确认参数必须保留`--align-audio`，并包含`--apply`、`--expect-timeline`和`--expect-"
              "captions`。Digest冲突时停止并重新开始。",
          },
      });
    case CLIAgentHelpTopic::settings:
      return markdown({
          {"# Vumo 画面设置"},
          {"使用`set <id-prefix> key=value ...`修改，默认只预演，确认规则见`help workflow`。"},
          {
              "- "
              "画面比例：`canvas.aspect=source|1:1|16:9|9:16|4:3|3:4`"
              "。它是项目构图设置，不能由CLI临时覆盖；修改后必须检查frame，再在编辑器中导出。",
              "- "
              "摄像头：`webcam.aspect-ratio=source|square`、`webcam.corner-radius=0..1`、`webcam.border=true|false`、`"
              "webcam.border-width=2..20`、`webcam.shadow=true|false`。",
              "- 兼容旧参数：`webcam.shape=circle|rounded-rectangle`会映射为1:1及对应圆角。",
              "- "
              "鼠标：`cursor.show=true|false`、`cursor.scale=0.5..3.0`、`cursor.click-ripple=true|false`、`cursor."
              "click-style=solid-pulse|ring|ring-and-press`。",
              "- 关闭鼠标重绘只隐藏光标，点击效果由独立开关控制。摄像头与鼠标样式只影响录后Preview和Export。",
          },
      });
    case CLIAgentHelpTopic::output:
      return markdown({
          {"# Vumo 检查与输出"},
          {
              "- CLI只提供单帧图片检查：`frame <id-prefix> --ms 5000 --out frame.jpg [--width 1280] [--replace]`",
              "- CLI不生成视频；完成剪辑后必须回到Vumo编辑器使用导出面板。",
              "- "
              "默认不覆盖已有文件，只有明确允许时使用`--replace`"
              "。frame只用于确认构图，不能替代用户对项目写盘修改和最终视频导出的确认。",
          },
      });
  }
  return {};
}

}  // namespace vumo
