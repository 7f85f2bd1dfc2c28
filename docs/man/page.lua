-- What a document of this project becomes in a manual page; pandoc asks each function for its kind
-- of element.

local pages = {
  ['file-formats.md'] = 'zorvbtrfssnapusage(5)',
  ['zorv-snapusage.md'] = 'zorv-snapusage(8)',
  ['sources.md'] = 'zorv-snapusage.conf(5)',
  ['concepts.md'] = '/usr/share/doc/zorv-snapusage/concepts.md',
}

-- Terminals have no typewriter face: code is bold, as man-pages(7) has it for what is typed.
function Code(code)
  -- A bar in a table's code has a backslash before it, which is the table's and not the code's.
  return pandoc.Strong((code.text:gsub('\\|', '|')))
end

-- The same for blocks of it, which stay as they are. A block may name a file that it shows.
function CodeBlock(code)
  local text = code.text
  if code.attributes.file then
    text = assert(io.open(code.attributes.file)):read('a'):gsub('\n$', '')
  end
  text = text:gsub('\\', '\\e'):gsub('-', '\\-'):gsub('\n([.\'])', '\n\\&%1')
  return pandoc.RawBlock('man', '.PP\n.RS 4\n.nf\n' .. text .. '\n.fi\n.RE')
end

-- A link to a document names its page, or where in the sources the document lies.
function Link(link)
  local file = link.target:match('([^/#]+%.md)')
  if not file then return link.content end
  local place = pages[file] or ('docs/' .. file)
  if pandoc.utils.stringify(link.content) == file then return pandoc.Str(place) end
  local text = pandoc.List(link.content)
  text:extend({pandoc.Space(), pandoc.Str('(' .. place .. ')')})
  return text
end

-- The title stands at the head of the page. What is a chapter in a document is a section here.
function Header(header)
  if header.level == 1 then return {} end
  header.level = header.level - 1
  if header.level == 1 then
    header.content = pandoc.Str(pandoc.text.upper(pandoc.utils.stringify(header.content)))
  end
  return header
end

local widest = 50  -- what fits on a terminal beside the margins, whatever the page's width

local function isNarrow(simple)
  for _, row in ipairs(simple.rows) do
    local width = 0
    for _, cell in ipairs(row) do width = width + #pandoc.utils.stringify(cell) + 3 end
    if width > widest then return false end
  end
  return true
end

-- A table is as wide as it likes, a terminal is not: each row becomes an entry under its first
-- cell, and from the third column on the column's heading says what a cell is.
function Table(tableBlock)
  local simple = pandoc.utils.to_simple_table(tableBlock)
  if isNarrow(simple) then return nil end
  local entries = {}
  for _, row in ipairs(simple.rows) do
    local blocks = pandoc.List()
    for column = 2, #row do
      local text = pandoc.utils.blocks_to_inlines(row[column])
      if #text > 0 then
        if column > 2 then
          local heading = pandoc.utils.stringify(simple.headers[column])
          text = pandoc.List({pandoc.Emph(heading .. ':'), pandoc.Space()}) .. text
        end
        blocks:insert(pandoc.Para(text))
      end
    end
    table.insert(entries, {pandoc.utils.blocks_to_inlines(row[1]), {blocks}})
  end
  return pandoc.DefinitionList(entries)
end

-- The first thing of a section is not told from its heading by a macro of its own.
function Blocks(blocks)
  for i = 2, #blocks do
    local block = blocks[i]
    if blocks[i - 1].t == 'Header' then
      if block.t == 'Para' then blocks[i] = pandoc.Plain(block.content) end
      if block.t == 'RawBlock' then block.text = block.text:gsub('^%.PP\n', '') end
    end
  end
  return blocks
end
